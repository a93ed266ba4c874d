/* A project that uses an installed libafehal, the way a touch service does.
 *
 *   consumer             calls the library it was linked against
 *   consumer dlopen NAME loads the library by NAME (no path) and calls it
 *
 * Either way it checks the interface version and the state rules that hold
 * on a machine without the touch driver, and prints where the library was
 * loaded from, so the caller can tell the installed copy from another. */
#define _GNU_SOURCE
#include <afehal/afehal.h>

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

struct api {
  uint32_t (*version)(void);
  uint32_t (*major)(void);
  uint32_t (*minor)(void);
  uint32_t (*set_sink)(kvr_afe_log_func);
  uint32_t (*start)(void);
  uint32_t (*open)(void);
  volatile uint32_t *state;
};

static int refusals_logged;
static void sink(const char *line) {
  if (strstr(line, "[kvr_afe_start] API can't be executed in this mode [KVR_STATE_CLOSED].")) {
    ++refusals_logged;
  }
}

#define CHECK(cond)                                                                                \
  if (!(cond)) {                                                                                   \
    fprintf(stderr, "consumer: %s:%d: %s does not hold\n", __FILE__, __LINE__, #cond);             \
    return 1;                                                                                      \
  }

static int exercise(const struct api *api) {
  CHECK(api->version() == 70400u);
  CHECK(api->major() == 1 && api->minor() == 19);
  CHECK(*api->state == KVR_STATE_CLOSED);
  CHECK(api->set_sink(sink) == KVR_AFE_OK);
  CHECK(api->start() == KVR_AFE_ERR_STATE);
  CHECK(refusals_logged == 1);
  if (access("/dev/kvr", F_OK) != 0) {
    CHECK(api->open() == KVR_AFE_ERR_OPEN);
    CHECK(*api->state == KVR_STATE_CLOSED);
  }
  Dl_info where;
  CHECK(dladdr((void *)api->version, &where) != 0);
  printf("consumer: libafehal %u.%u from %s\n", api->major(), api->minor(), where.dli_fname);
  return 0;
}

#ifndef AFEHAL_CONSUMER_DLOPEN_ONLY
static int linked(void) {
  struct api api = {kvr_afe_hal_spec_version,
                    kvr_afe_hal_spec_major_version,
                    kvr_afe_hal_spec_minor_version,
                    kvr_afe_set_log_callback_func,
                    kvr_afe_start,
                    kvr_afe_open,
                    &gu32AFEStatus};
  return exercise(&api);
}
#endif

static int loaded(const char *name) {
  void *lib = dlopen(name, RTLD_NOW | RTLD_LOCAL);
  if (lib == NULL) {
    fprintf(stderr, "consumer: dlopen %s: %s\n", name, dlerror());
    return 1;
  }
  struct api api;
  *(void **)&api.version = dlsym(lib, "kvr_afe_hal_spec_version");
  *(void **)&api.major = dlsym(lib, "kvr_afe_hal_spec_major_version");
  *(void **)&api.minor = dlsym(lib, "kvr_afe_hal_spec_minor_version");
  *(void **)&api.set_sink = dlsym(lib, "kvr_afe_set_log_callback_func");
  *(void **)&api.start = dlsym(lib, "kvr_afe_start");
  *(void **)&api.open = dlsym(lib, "kvr_afe_open");
  api.state = (volatile uint32_t *)dlsym(lib, "gu32AFEStatus");
  CHECK(api.version && api.major && api.minor && api.set_sink && api.start && api.open &&
        api.state);
  int rc = exercise(&api);
  dlclose(lib);
  return rc;
}

int main(int argc, char **argv) {
  if (argc == 3 && strcmp(argv[1], "dlopen") == 0) {
    return loaded(argv[2]);
  }
#ifndef AFEHAL_CONSUMER_DLOPEN_ONLY
  if (argc == 1) {
    return linked();
  }
#endif
  fprintf(stderr, "usage: consumer [dlopen NAME]\n");
  return 2;
}
