/* A touch service's view: load libafehal.so with dlopen and drive it with the
 * public header alone. Without a touch driver on this machine, opening the
 * node must fail cleanly and every call must keep to the state rules. */
#include <afehal/afehal.h>

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static int lines_seen;
static void sink(const char *line) {
  if (strstr(line, "[kvr_afe_start] API can't be executed in this mode [KVR_STATE_CLOSED].")) {
    ++lines_seen;
  }
}

#define RESOLVE(handle, type, name)                                                                \
  type name##_fn = (type)dlsym(handle, #name);                                                     \
  if (name##_fn == NULL) {                                                                         \
    fprintf(stderr, "missing symbol %s\n", #name);                                                 \
    return 1;                                                                                      \
  }

#define EXPECT_EQ(actual, expected)                                                                \
  if ((actual) != (expected)) {                                                                    \
    fprintf(stderr, "%s:%d: %s is %lu, expected %lu\n", __FILE__, __LINE__, #actual,               \
            (unsigned long)(actual), (unsigned long)(expected));                                   \
    return 1;                                                                                      \
  }

typedef uint32_t (*u32_fn)(void);
typedef uint32_t (*set_sink_fn)(kvr_afe_log_func);
typedef uint32_t (*set_level_fn)(uint8_t);
typedef kvr_frame_data *(*frame_fn)(void);

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: dlopen_client path/to/libafehal.so\n");
    return 2;
  }
  void *lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (lib == NULL) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    return 1;
  }
  RESOLVE(lib, u32_fn, kvr_afe_hal_spec_version);
  RESOLVE(lib, set_sink_fn, kvr_afe_set_log_callback_func);
  RESOLVE(lib, set_level_fn, kvr_afe_set_log_level);
  RESOLVE(lib, u32_fn, kvr_afe_start);
  RESOLVE(lib, u32_fn, kvr_afe_open);
  RESOLVE(lib, frame_fn, kvr_afe_get_frame);
  uint32_t *state = (uint32_t *)dlsym(lib, "gu32AFEStatus");
  if (state == NULL) {
    fprintf(stderr, "missing symbol gu32AFEStatus\n");
    return 1;
  }

  EXPECT_EQ(kvr_afe_hal_spec_version_fn(), 70400u);
  EXPECT_EQ(*state, (uint32_t)KVR_STATE_CLOSED);
  EXPECT_EQ(kvr_afe_set_log_callback_func_fn(NULL), (uint32_t)KVR_AFE_ERR_STATE_OR_ARG);
  EXPECT_EQ(kvr_afe_set_log_callback_func_fn(sink), (uint32_t)KVR_AFE_OK);
  EXPECT_EQ(kvr_afe_set_log_level_fn(6), (uint32_t)KVR_AFE_ERR_STATE_OR_ARG);
  EXPECT_EQ(kvr_afe_set_log_level_fn(5), (uint32_t)KVR_AFE_OK);
  EXPECT_EQ(kvr_afe_start_fn(), (uint32_t)KVR_AFE_ERR_STATE);
  EXPECT_EQ(lines_seen, 1);
  if (kvr_afe_get_frame_fn() != NULL) {
    fprintf(stderr, "kvr_afe_get_frame answered while closed\n");
    return 1;
  }
  /* No touch driver here: the node cannot be opened and the state stays. */
  if (access("/dev/kvr", F_OK) != 0) {
    EXPECT_EQ(kvr_afe_open_fn(), (uint32_t)KVR_AFE_ERR_OPEN);
    EXPECT_EQ(*state, (uint32_t)KVR_STATE_CLOSED);
  }
  dlclose(lib);
  puts("dlopen client: OK");
  return 0;
}
