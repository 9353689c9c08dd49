#include "device/DeviceManager.h"

#include "protocol/DeviceProtocol.h"
#include "protocol/Globals.h"
#include "protocol/SerialManager.h"
#include "support/Logger.h"
#include "support/NotificationCenter.h"
#include "support/TextScan.h"

#include <string_view>

namespace dravinel {

namespace {

constexpr std::string_view kIRPrefix = "IR: ";
constexpr std::string_view kLineEnd = "\n\r";

Logger& logger()
{
    return Logger::getInstance();
}

} // namespace

std::shared_ptr<DeviceManager> DeviceManager::create()
{
    auto manager = std::make_shared<DeviceManager>(PassKey{});
    manager->m_serialManager = std::make_shared<SerialManager>(manager);
    manager->m_serialManager->start();
    return manager;
}

DeviceManager::DeviceManager(PassKey)
{
    // Declared for the device's readings but not kept here: reads return and post their values.
    (void)m_batteryLevel;
    (void)m_reedSensor;
    (void)m_infraRed;
}

DeviceManager::~DeviceManager()
{
    if (m_serialManager)
        m_serialManager->stop();
}

void DeviceManager::stop()
{
    m_serialManager->stop();
}

void DeviceManager::clean()
{
    m_serialManager->clean();
}

bool DeviceManager::isConnected() const
{
    return m_serialManager->isConnected();
}

void DeviceManager::setConnectionState(std::int32_t state)
{
    // Posted before the store, and only on a change.
    if (state != m_connectionState)
        post(ConnStateChangedEvent, "state", state);
    m_connectionState = state;
}

void DeviceManager::enableKeepaliveCheck(bool enable)
{
    m_serialManager->enableKeepAlive(enable);
}

bool DeviceManager::waitUntilStopped(std::chrono::milliseconds timeout) const
{
    return m_serialManager->waitUntilScanEnded(timeout);
}

std::vector<PortAttempt> DeviceManager::getPortAttempts() const
{
    return m_serialManager->getPortAttempts();
}

void DeviceManager::post(const char* name, const char* key, std::int64_t value)
{
    NotificationCenter::defaultCenter().post(name, this, {{key, value}});
}

std::optional<std::string> DeviceManager::requestContent(char request, const std::string& content,
                                                         char response, const char* prefix)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(content.data());
    auto results = m_serialManager->sendWithResponses(request, content.empty() ? nullptr : bytes,
                                                      content.size(), 1, DELAY_RESPONSE);
    if (!results || results->empty() || results->front().empty())
        return std::nullopt;
    const Bytes& first = results->front();
    if (static_cast<char>(first[0]) != response) {
        logger().logDebug("%s: Invalid response", prefix);
        return std::nullopt;
    }
    auto extracted = DeviceProtocol::extractContent(first);
    if (!extracted) {
        logger().logDebug("%s: No response content", prefix);
        return std::nullopt;
    }
    return asciiText(*extracted);
}

std::optional<std::uint16_t> DeviceManager::requestNumber(char request, const std::string& content,
                                                          char response, const char* prefix)
{
    auto text = requestContent(request, content, response, prefix);
    if (!text)
        return std::nullopt;
    auto number = scanLeadingInt(*text);
    if (!number) {
        logger().logDebug("%s: Non numeric response content", prefix);
        return std::nullopt;
    }
    return low16(*number);
}

std::optional<std::string> DeviceManager::readRevision()
{
    auto revision = requestContent(READ_REV_REQ, {}, READ_REV_RESP, "DeviceManager readRevision");
    if (!revision)
        return std::nullopt;
    {
        std::lock_guard lock(m_revisionMutex);
        m_revision = *revision;
    }
    NotificationCenter::defaultCenter().post(ReadRevisionEvent, this, {{"rev", *revision}});
    return revision;
}

std::string DeviceManager::getRevision() const
{
    std::lock_guard lock(m_revisionMutex);
    return m_revision;
}

std::optional<SettingsData> DeviceManager::readSettings()
{
    auto results =
        m_serialManager->sendWithResponses(READ_SETTINGS_REQ, nullptr, 0, 6, DELAY_RESPONSE);
    if (!results || results->empty() || results->front().empty())
        return std::nullopt;
    auto settings = SettingsData::createFromResults(*results);
    if (!settings)
        logger().logDebug("DeviceManager readSettings: Invalid results received");
    return settings;
}

bool DeviceManager::saveSetting(char request, char response, const char* prefix,
                                std::uint16_t value)
{
    auto echo = requestContent(request, std::to_string(value), response, prefix);
    if (!echo)
        return false;
    auto number = scanLeadingInt(*echo);
    if (!number) {
        logger().logDebug("%s: Non numeric response content", prefix);
        return false;
    }
    // Compared on 16 bits: an echo 65536 above the value passes too.
    if (low16(*number) != value) {
        logger().logDebug("%s: Did not return saved value", prefix);
        return false;
    }
    logger().logDebug("%s: Success", prefix);
    return true;
}

bool DeviceManager::saveCurrentLimit(std::uint16_t value)
{
    return saveSetting(SAVE_CURR_LIMIT_REQ, SAVE_CURR_LIMIT_RESP, "DeviceManager SaveCurrentLimit",
                       value);
}

bool DeviceManager::saveIR(std::uint16_t value)
{
    return saveSetting(SAVE_IR_REQ, SAVE_IR_RESP, "DeviceManager SaveIR", value);
}

bool DeviceManager::savePositiveRotation(std::uint16_t value)
{
    return saveSetting(SAVE_POS_ROT_REQ, SAVE_POS_ROT_RESP, "DeviceManager SavePositiveRotation",
                       value);
}

bool DeviceManager::saveNegativeRotation(std::uint16_t value)
{
    return saveSetting(SAVE_NEG_ROT_REQ, SAVE_NEG_ROT_RESP, "DeviceManager SaveNegativeRotation",
                       value);
}

bool DeviceManager::saveMotorSpeed(std::uint16_t value)
{
    return saveSetting(SAVE_MOTOR_SPEED_REQ, SAVE_MOTOR_SPEED_RESP, "DeviceManager SaveMotorSpeed",
                       value);
}

bool DeviceManager::saveCycleTimeout(std::uint16_t value)
{
    return saveSetting(SAVE_CYCLE_TO_REQ, SAVE_CYCLE_TO_RESP, "DeviceManager SaveCycleTimeout",
                       value);
}

bool DeviceManager::saveAndExit()
{
    m_serialManager->sendWithoutResponse(SAVE_EXIT_REQ, nullptr, 0);
    return true;
}

std::uint16_t DeviceManager::readSensor(char request, char response, const char* prefix,
                                        const char* notification, const char* key)
{
    auto value = requestNumber(request, {}, response, prefix);
    if (!value)
        return VAL_UNDEF;
    logger().logDebug("%s: Success", prefix);
    post(notification, key, *value);
    return *value;
}

std::uint16_t DeviceManager::readVBatt()
{
    return readSensor(READ_V_BATT_REQ, READ_V_BATT_RESP, "DeviceManager ReadVBatt", ReadVBattEvent,
                      "vbatt");
}

std::uint16_t DeviceManager::readReedSensor()
{
    return readSensor(READ_REED_SENSOR_REQ, READ_REED_SENSOR_RESP, "DeviceManager readReedSensor",
                      MonitorReedSensorEvent, "value");
}

DeviceManager::IRReply DeviceManager::parseIRReply(const std::string& text)
{
    if (!std::string_view(text).starts_with(kIRPrefix))
        return {IRReply::Status::Invalid, VAL_UNDEF};
    auto number = scanLeadingInt(removeAll(removeAll(text, kIRPrefix), kLineEnd));
    if (!number)
        return {IRReply::Status::NonNumeric, VAL_UNDEF};
    return {IRReply::Status::Ok, low16(*number)};
}

std::uint16_t DeviceManager::readIR()
{
    // The IR reply is a text line ("IR: <n>"), not a coded answer.
    auto results = m_serialManager->sendWithResponses(READ_IR_REQ, nullptr, 0, 1, DELAY_RESPONSE);
    if (!results || results->empty() || results->front().empty())
        return VAL_UNDEF;
    const IRReply reply = parseIRReply(asciiText(results->front()));
    switch (reply.status) {
    case IRReply::Status::Invalid:
        // The message names the reed sensor read; log readers know it by these words.
        logger().logDebug("DeviceManager readReedSensor: Invalid response");
        return VAL_UNDEF;
    case IRReply::Status::NonNumeric:
        logger().logDebug("DeviceManager onMonitorFrameReceived: Non numeric response content");
        return VAL_UNDEF;
    case IRReply::Status::Ok:
        break;
    }
    post(MonitorIREvent, "value", reply.value);
    return reply.value;
}

void DeviceManager::startMotorMonitoring()
{
    m_serialManager->sendWithoutResponse(TEST_MOTOR_REQ, nullptr, 0);
}

void DeviceManager::onMonitorFrameReceived(const Bytes& frame)
{
    const std::string text = asciiText(frame);
    const std::string_view view(text);
    // The prefix tested is shorter than the text removed: "IMEAS:412" stays non-numeric.
    const char* event = nullptr;
    std::string rest;
    if (view.starts_with(MONITOR_CURRENT_PREFIX)) {
        event = MonitorMotorEvent;
        rest = removeAll(removeAll(text, "IMEAS: "), kLineEnd);
    } else if (view.starts_with(MONITOR_DONE_PREFIX)) {
        event = MonitorMotorDoneEvent;
        rest = removeAll(removeAll(text, "MX:"), kLineEnd);
    } else {
        return;
    }
    auto number = scanLeadingInt(rest);
    if (!number) {
        logger().logDebug("DeviceManager onMonitorFrameReceived: Non numeric response content");
        return;
    }
    post(event, "value", low16(*number));
}

} // namespace dravinel
