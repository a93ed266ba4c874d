// What the simulated driver and chip understand on the wire, written down
// here on their own so that nothing is borrowed from the library they check.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim::wire {

// ---- Driver -----------------------------------------------------------------

constexpr const char *kDeviceNode = "/dev/kvr";

// Linux _IOC encoding: dir 31..30, size 29..16, type 15..8, nr 7..0.
constexpr unsigned long ioc(unsigned long dir, unsigned long size, unsigned long nr) {
  return (dir << 30) | (size << 16) | (0xB8ul << 8) | nr;
}
constexpr unsigned long kIocWrite = 1;
constexpr unsigned long kIocReadWrite = 3;

constexpr unsigned long kGetFrame = ioc(kIocReadWrite, 24, 1);
constexpr unsigned long kSetReset = ioc(kIocWrite, 4, 2);
constexpr unsigned long kSetTimeout = ioc(kIocWrite, 4, 3);
constexpr unsigned long kSpiSync = ioc(kIocReadWrite, 24, 4);
constexpr unsigned long kSetBlock = ioc(kIocWrite, 4, 6);
constexpr unsigned long kSetIrq = ioc(kIocWrite, 4, 7);
constexpr unsigned long kGetFrameCount = ioc(kIocWrite, 4, 8);
constexpr unsigned long kClearFrameBuffer = ioc(kIocWrite, 4, 9);
static_assert(kGetFrame == 0xC018B801 && kSpiSync == 0xC018B804);
static_assert(kGetFrameCount == 0x4004B808 && kClearFrameBuffer == 0x4004B809);

// Both pointer records are 24 bytes: two 64-bit pointers, a u32 length or
// capacity, a reserved u32 that must be 0.
constexpr size_t kRecordSize = 24;
constexpr size_t kRecordFirstPtr = 0;
constexpr size_t kRecordSecondPtr = 8;
constexpr size_t kRecordLength = 16;
constexpr size_t kRecordReserved = 20;

// Largest single transfer the driver accepts.
constexpr uint32_t kMaxSpiTransfer = 64 * 1024;
// Frames the driver keeps before it overwrites the oldest.
constexpr size_t kFrameFifoDepth = 16;
// Frame wait while the host has not set a time-out.
constexpr uint32_t kDefaultFrameTimeoutMs = 1000;

// ---- SPI opcodes --------------------------------------------------------------

constexpr uint8_t kMemRead = 0xFB;      // addr32 BE, dummy, data
constexpr uint8_t kMemWrite = 0xFA;     // addr32 BE, data
constexpr uint8_t kCfgRead = 0xA9;      // addr16 BE, dummy, data
constexpr uint8_t kCfgWrite = 0xA8;     // addr16 BE, data
constexpr uint8_t kHostDataRead = 0xA7; // addr16 BE (offset in the host-data area), dummy, data
constexpr uint8_t kEventRead = 0x87;    // dummy, 8 bytes per event

// ---- System memory ------------------------------------------------------------

constexpr uint32_t kChipIdRegs = 0x20000000; // 8 read-only bytes; writes are ignored
constexpr uint32_t kRegPage = 0x20000000;    // control registers, cleared by a reset
constexpr uint32_t kRegPageSize = 0x100;
constexpr uint32_t kPreSetup1 = 0x2000001B;     // 0x66
constexpr uint32_t kCoreControl = 0x20000024;   // 0x80 reset, 0x01 hold, 0x00 run
constexpr uint32_t kFlashUnlock1 = 0x20000025;  // 0x20
constexpr uint32_t kPreSetup2 = 0x20000068;     // 0x13
constexpr uint32_t kEraseControl = 0x2000006A;  // page | 0x80; bit 7 busy
constexpr uint32_t kFlashControl = 0x2000006B;  // 7-byte DMA start block
constexpr uint32_t kDmaStatus = 0x20000071;     // last byte of the start block; bit 7 busy
constexpr uint32_t kDmaDescriptor = 0x20000072; // 7 bytes
constexpr uint32_t kFlashUnlock2 = 0x200000DE;  // 0x03
constexpr uint8_t kResetValue = 0x80;
constexpr uint8_t kHoldValue = 0x01;
constexpr uint8_t kRunValue = 0x00;
constexpr uint8_t kUnlock1Value = 0x20;
constexpr uint8_t kUnlock2Value = 0x03;
// Start block bytes 0x2000006B..0x20000070 that must precede the 0xC0.
constexpr uint8_t kDmaStartBlock[6] = {0x00, 0x40, 0x42, 0x0F, 0x00, 0x00};

constexpr uint32_t kStagingRam = 0x00100000;
constexpr uint32_t kHostDataArea = 0x20010000;
constexpr uint32_t kErrorDump = 0x2001EF80;
constexpr size_t kErrorDumpSize = 128;

// ---- Host data ----------------------------------------------------------------

constexpr uint8_t kHostDataSignature = 0xA5;
constexpr uint8_t kChipInfoType = 0x01;
constexpr size_t kChipInfoSize = 250;
constexpr size_t kHostDataHeaderSize = 16;

// ---- Configuration space --------------------------------------------------------

constexpr uint16_t kCfgChannels = 0x0030;  // byte 0 sense, byte 1 force
constexpr uint16_t kCfgTCycle = 0x00EC;    // u16 LE
constexpr uint16_t kCfgFrameRate = 0x0087; // frames per second
constexpr uint16_t kCfgFreqCount = 0x0219; // (byte & 3) + 1 frequencies
constexpr uint16_t kCfgFreqTable = 0x021A; // one byte per frequency point
constexpr uint32_t kScanClockHz = 32000000;

// ---- Events ---------------------------------------------------------------------

constexpr size_t kEventSize = 8;
constexpr size_t kEventFifoDepth = 64;
constexpr uint8_t kEvReady = 0x03;
constexpr uint8_t kEvStatus = 0x43;
constexpr uint8_t kEvSubEcho = 0x01;
constexpr uint8_t kEvSubFrameStatus = 0x09;
constexpr uint8_t kEvFatal = 0xF2;
constexpr uint8_t kEvError = 0xF3;

// ---- Flash ----------------------------------------------------------------------

constexpr uint32_t kCodeHeaderAt = 0;
constexpr uint32_t kCxHeaderAt = 118784;
constexpr uint32_t kConfigHeaderAt = 126976;

// ---- Frames ---------------------------------------------------------------------

constexpr uint8_t kFrameTag0 = 0xA5;
constexpr uint8_t kFrameTag1 = 0x3A;
constexpr size_t kFrameHeaderSize = 64;
constexpr size_t kCrcStart = 20;
constexpr uint32_t kCrcPoly = 0xE89061DB;
constexpr uint8_t kScanModeActive = 4;
constexpr uint8_t kScanModeIdle = 2;
// Rate codes below 0x40 mean 180 Hz, from 0x40 on 120 Hz.
constexpr uint8_t kRateCode120 = 0x40;
constexpr uint8_t kRateCode180 = 0x00;
constexpr uint32_t kIdleRateHz = 20;

} // namespace sim::wire
