/* The public header must compile as strict C11 on its own. */
#include <afehal/afehal.h>

int header_check_uses_types(void);
int header_check_uses_types(void) {
  kvr_frame_data frame = {0};
  kvr_hw_cap cap = {0};
  kvr_afe_info info = {{0}, {0}, {0}};
  return (int)(frame.status + cap.freq_count + (unsigned char)info.version[0]);
}
