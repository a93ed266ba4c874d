#include "chip/transport/host_data.h"

#include <array>

#include "chip/transport/fw_cmd.h"
#include "chip/transport/le_bytes.h"
#include "chip/transport/reg_access.h"
#include "platform/log.h"
#include "platform/os.h"

chip_info info{};
chip_info sys_info{};

namespace {

constexpr uint32_t kHeaderSize = 4;
constexpr uint32_t kPollIntervalUs = 5000;
constexpr int64_t kChipInfoTimeoutMs = 100;
constexpr uint8_t kCmdRequestHostData = 0xA4;
constexpr uint8_t kSubRequestHostData = 0x06;

// Decodes the chip-info block. The chip1 id sits at bytes 15-16, one byte
// off alignment, and shares byte 16 with the firmware version; byte 14 is
// not used. That is where the firmware puts them.
void decode_chip_info(const uint8_t *b, chip_info *r) {
  r->signature = b[0];
  r->id = b[1];
  r->load_count = le16(b + 2);
  r->api_ver_third = le16(b + 4);
  r->api_ver_second = b[6];
  r->api_ver_first = b[7];
  r->chip0_ver = le16(b + 8);
  r->chip0_id = le16(b + 10);
  r->chip1_ver = le16(b + 12);
  r->chip1_id = le16(b + 15);
  r->fw_ver = le16(b + 16);
  r->svn_rev = le16(b + 18);
  r->cfg_ver = le16(b + 20);
  r->cfg_id = le16(b + 22);
  r->cx_cfg_ver = le16(b + 24);
  r->cx_cfg_id = le16(b + 26);
  r->afe_ver_cfg = b[28];
  r->cx_ver = b[29];
  r->panel_cfg = b[30];
  r->ext_id_low = le32(b + 48);
  r->ext_id_high = le32(b + 52);
  r->force_len = b[84];
  r->sense_len = b[85];
  r->ms_raw_addr = le16(b + 136);
}

void log_chip_info(const chip_info &r) {
  constexpr const char *tag = "read_chip_info";
  NLOG(LOG_LEVEL_INFO, tag, "chip info - load cnt: %d, id: 0x%02X, signature: 0x%02X, tick: %ld",
       r.load_count, r.id, r.signature, static_cast<long>(sys_get_cur_systime()));
  NLOG(LOG_LEVEL_INFO, tag, "api: V%d.%d.%d", r.api_ver_first, r.api_ver_second, r.api_ver_third);
  NLOG(LOG_LEVEL_INFO, tag, "chip0 - version: 0x%04X, id: 0x%04X", r.chip0_ver, r.chip0_id);
  NLOG(LOG_LEVEL_INFO, tag, "chip1 - version: 0x%04X, id: 0x%04X", r.chip1_ver, r.chip1_id);
  NLOG(LOG_LEVEL_INFO, tag, "fw - version: 0x%04X, svn_rev: 0x%04X", r.fw_ver, r.svn_rev);
  NLOG(LOG_LEVEL_INFO, tag, "cfg - version: 0x%04X, id: 0x%04X", r.cfg_ver, r.cfg_id);
  NLOG(LOG_LEVEL_INFO, tag, "cx in cfg - version: 0x%04X, id: 0x%04X", r.cx_cfg_ver, r.cx_cfg_id);
  NLOG(LOG_LEVEL_INFO, tag, "afe version cfg: 0x%02X, cx: 0x%02X, panel cfg: 0x%02X", r.afe_ver_cfg,
       r.cx_ver, r.panel_cfg);
  NLOG(LOG_LEVEL_INFO, tag, "external id: 0x%08X%08X", r.ext_id_high, r.ext_id_low);
  NLOG(LOG_LEVEL_INFO, tag, "Force Length: 0x%02X  Sense Length: 0x%02X", r.force_len, r.sense_len);
  NLOG(LOG_LEVEL_INFO, tag, "MSRaw address 0x%04X", r.ms_raw_addr);
}

} // namespace

uint32_t request_host_data(uint8_t type, int64_t timeout_ms) {
  constexpr const char *tag = "request_host_data";
  std::array<uint8_t, kHeaderSize> header{};
  uint32_t result = quillon_read_at(HOST_DATA_ADDRESS, header.data(), kHeaderSize);
  if (result != 0) {
    log_error(tag, "Error reading host data %d", static_cast<int>(result));
    return result;
  }
  const uint16_t old_count = le16(header.data() + 2);
  NLOG(LOG_LEVEL_TRACE, tag, "Old cnt: %d ", old_count);
  const int64_t start = sys_get_cur_systime();

  // No echo comes back for this request and its write result is not looked
  // at: the load counter is the only answer, so a lost request simply ends
  // in the time-out below.
  const std::array<uint8_t, 3> request{kCmdRequestHostData, kSubRequestHostData, type};
  quillon_write(request.data(), request.size());
  if (timeout_ms < 1) {
    log_error(tag, "Timeout after requesting host data type %02X", type);
    return FW_ERR_TIMEOUT;
  }
  for (;;) {
    result = quillon_read_at(HOST_DATA_ADDRESS, header.data(), kHeaderSize);
    if (result != 0) {
      log_error(tag, "Error reading host data memory %d", static_cast<int>(result));
      return result;
    }
    const uint16_t count = le16(header.data() + 2);
    if (header[0] == HOST_DATA_SIGNATURE && count != old_count && header[1] == type) {
      NLOG(LOG_LEVEL_INFO, tag, "Host data loaded after %ld ms, cnt: %d",
           static_cast<long>(sys_get_cur_systime() - start), count);
      return FW_OK;
    }
    os().usleep(kPollIntervalUs);
    if (sys_get_cur_systime() - start >= timeout_ms) {
      log_error(tag, "Timeout after requesting host data type %02X", type);
      return FW_ERR_TIMEOUT;
    }
  }
}

uint32_t read_chip_info(chip_info *record) {
  constexpr const char *tag = "read_chip_info";
  if (record == nullptr) {
    log_error(tag, "Chip info record is NULL");
    return FW_ERR_ALLOC;
  }
  *record = chip_info{};
  NLOG(LOG_LEVEL_INFO, tag, "Read Chip Info..");
  uint32_t result = request_host_data(HOST_DATA_CHIP_INFO, kChipInfoTimeoutMs);
  if (result != 0) {
    log_error(tag, "Error requesting chip info");
    return result;
  }
  std::array<uint8_t, CHIP_INFO_SIZE> block{};
  result = quillon_read_at(HOST_DATA_ADDRESS, block.data(), CHIP_INFO_SIZE);
  if (result != 0) {
    log_error(tag, "Error reading chip info");
    return result;
  }
  decode_chip_info(block.data(), record);
  log_chip_info(*record);
  return FW_OK;
}
