// The host-data area at 0x20010000: the firmware loads the block the host
// asks for a little after the request, stamping its header with the
// signature, the type and a fresh load counter.
#include <algorithm>
#include <array>

#include "sim/state.h"

namespace sim::detail {

namespace {

void write_chip_info(uint16_t counter) {
  const chip_identity &id = g_ic.id;
  std::array<uint8_t, wire::kChipInfoSize> b{};
  b[0] = wire::kHostDataSignature;
  b[1] = wire::kChipInfoType;
  put_le16(&b[2], counter);
  put_le16(&b[4], id.api_third);
  b[6] = id.api_second;
  b[7] = id.api_first;
  put_le16(&b[8], id.chip0_ver);
  put_le16(&b[10], id.chip0_id);
  put_le16(&b[12], id.chip1_ver);
  // The chip1 id sits one byte off at 15..16 and the firmware version at
  // 16..17: the version owns byte 16, so only the id's low byte survives.
  b[15] = static_cast<uint8_t>(id.chip1_id);
  put_le16(&b[16], id.fw_ver);
  put_le16(&b[18], id.svn_rev);
  put_le16(&b[20], id.cfg_ver);
  put_le16(&b[22], id.cfg_id);
  put_le16(&b[24], id.cx_cfg_ver);
  put_le16(&b[26], id.cx_cfg_id);
  b[28] = id.afe_ver_cfg;
  b[29] = id.cx_ver;
  b[30] = id.panel_cfg;
  put_le32(&b[48], id.ext_id_low);
  put_le32(&b[52], id.ext_id_high);
  b[84] = g_ic.cfg[wire::kCfgChannels + 1]; // force
  b[85] = g_ic.cfg[wire::kCfgChannels];     // sense
  put_le16(&b[136], id.ms_raw_addr);
  mem_store(wire::kHostDataArea, b.data(), b.size());
}

void write_plain_header(uint8_t type, uint16_t counter) {
  std::array<uint8_t, wire::kHostDataHeaderSize> h{};
  h[0] = wire::kHostDataSignature;
  h[1] = type;
  put_le16(&h[2], counter);
  mem_store(wire::kHostDataArea, h.data(), h.size());
}

// The block set by serve_host_data, stamped as a fresh load of type unless
// it is to go out exactly as given.
void write_served_block(uint8_t type, uint16_t counter) {
  std::vector<uint8_t> b = g_ic.served_block;
  if (!g_ic.served_raw) {
    b.resize(std::max<size_t>(b.size(), 4));
    b[0] = wire::kHostDataSignature;
    b[1] = type;
    put_le16(&b[2], counter);
  }
  mem_store(wire::kHostDataArea, b.data(), b.size());
}

} // namespace

void host_data_request(uint8_t type) {
  if (g_ic.host_data_never_loads || !diag_block_loads(type)) {
    return;
  }
  g_ic.load_pending = true;
  g_ic.load_due_us = clock_now() + g_ic.host_data_delay_us;
  g_ic.load_type = type;
}

void host_data_catch_up(int64_t now) {
  if (!g_ic.load_pending || g_ic.load_due_us > now) {
    return;
  }
  g_ic.load_pending = false;
  const uint16_t counter = ++g_ic.load_counter;
  if (!g_ic.served_block.empty()) {
    write_served_block(g_ic.load_type, counter);
  } else if (g_ic.load_type == wire::kChipInfoType) {
    write_chip_info(counter);
  } else if (!diag_write_block(g_ic.load_type, counter)) {
    write_plain_header(g_ic.load_type, counter);
  }
}

} // namespace sim::detail
