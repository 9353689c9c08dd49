#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

// The device's protocol constants: frame bytes, command codes and delays.

namespace dravinel {

inline constexpr char SEPARATOR = ',';
inline constexpr char SEPARATOR_IR = ':';
inline constexpr std::uint8_t END_1 = 0x0A; // LF
inline constexpr std::uint8_t END_2 = 0x0D; // CR
inline constexpr std::uint16_t VAL_UNDEF = 0xFFFF;

inline constexpr char READ_REV_REQ = 'B';
inline constexpr char READ_REV_RESP = 'b';
inline constexpr char READ_SETTINGS_REQ = 'G';
inline constexpr char SAVE_CURR_LIMIT_REQ = 'C';
inline constexpr char SAVE_CURR_LIMIT_RESP = 'c';
inline constexpr char SAVE_IR_REQ = 'I';
inline constexpr char SAVE_IR_RESP = 'i';
inline constexpr char SAVE_POS_ROT_REQ = 'R';
inline constexpr char SAVE_POS_ROT_RESP = 'r';
inline constexpr char SAVE_NEG_ROT_REQ = 'L';
inline constexpr char SAVE_NEG_ROT_RESP = 'l';
inline constexpr char SAVE_MOTOR_SPEED_REQ = 'S';
inline constexpr char SAVE_MOTOR_SPEED_RESP = 's';
inline constexpr char SAVE_CYCLE_TO_REQ = 'T';
inline constexpr char SAVE_CYCLE_TO_RESP = 't';
inline constexpr char READ_REED_SENSOR_REQ = 'O';
inline constexpr char READ_REED_SENSOR_RESP = 'o';
inline constexpr char READ_V_BATT_REQ = 'V';
inline constexpr char READ_V_BATT_RESP = 'v';
inline constexpr char READ_IR_REQ = 'N';
inline constexpr char READ_IR_RESP = 'n';
inline constexpr char TEST_MOTOR_REQ = 'M';
inline constexpr char TEST_MOTOR_RESP = 'm';
inline constexpr char SAVE_EXIT_REQ = 'Z';
inline constexpr char SAVE_EXIT_RESP = 'z';

// Milliseconds. DELAY_RESPONSE is the budget per awaited response, DELAY_SCAN_CHECK the scan
// pause and the monitoring poll period. DELAY_STEP_WAIT is part of the protocol's constant set
// but no operation reads it.
inline constexpr std::int32_t DELAY_RESPONSE = 1000;
inline constexpr std::int32_t DELAY_SCAN_CHECK = 1000;
inline constexpr std::int32_t DELAY_STEP_WAIT = 10;

// DELAY_RESPONSE as a duration, as the transactions take it.
inline constexpr std::chrono::milliseconds RESPONSE_TIMEOUT{DELAY_RESPONSE};

// The keep-alive period of a held connection.
inline constexpr std::chrono::milliseconds KEEPALIVE_PERIOD{3000};

// The advanced-settings password.
inline constexpr std::string_view PASS = "5137";

// The word that marks the device's serial ports in their paths.
inline constexpr std::string_view PRODUCT_WORD = "Dravinel";

// Text prefixes of the motor test's monitor frames.
inline constexpr std::string_view MONITOR_CURRENT_PREFIX = "IMEAS";
inline constexpr std::string_view MONITOR_DONE_PREFIX = "MX";

} // namespace dravinel
