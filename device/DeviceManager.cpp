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

std::string answerText(const Bytes& frame)
{
    std::string text = toText(frame);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return text;
}

std::shared_ptr<DeviceManager> DeviceManager::create(Options options, Start start)
{
    auto manager = std::make_shared<DeviceManager>(PassKey{}, std::move(options));
    if (start == Start::Now)
        manager->start();
    return manager;
}

void DeviceManager::start()
{
    m_serialManager.start();
}

DeviceManager::DeviceManager(PassKey, Options options) : m_serialManager(*this, std::move(options))
{
    // Declared for the device's readings but not kept here: reads return and post their values.
    (void)m_batteryLevel;
    (void)m_reedSensor;
    (void)m_infraRed;
}

DeviceManager::~DeviceManager()
{
    m_serialManager.join();
}

void DeviceManager::stop()
{
    m_serialManager.stop();
}

void DeviceManager::clean()
{
    m_serialManager.clean();
}

bool DeviceManager::isConnected() const
{
    return m_serialManager.isConnected();
}

void DeviceManager::setConnectionState(ConnectionState state)
{
    // Posted before the store, and only on a change.
    if (state != m_connectionState)
        post(ConnStateChangedEvent, "state", static_cast<std::int32_t>(state));
    m_connectionState = state;
}

void DeviceManager::enableKeepaliveCheck(bool enable)
{
    m_serialManager.enableKeepAlive(enable);
}

bool DeviceManager::waitUntilStopped(std::chrono::milliseconds timeout) const
{
    return m_serialManager.waitUntilScanEnded(timeout);
}

std::vector<PortAttempt> DeviceManager::getPortAttempts() const
{
    return m_serialManager.getPortAttempts();
}

void DeviceManager::post(const char* name, const char* key, std::int64_t value)
{
    NotificationCenter::defaultCenter().post(name, this, {{key, value}});
}

std::optional<std::string> DeviceManager::requestContent(char request, const std::string& content,
                                                         char response, const char* prefix,
                                                         std::optional<std::string>* answer)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(content.data());
    std::vector<Bytes> received;
    auto results = m_serialManager.sendWithResponses(
        request, content.empty() ? nullptr : bytes, content.size(), 1, RESPONSE_TIMEOUT, &received);
    if (answer)
        *answer = received.empty() ? std::nullopt : std::optional(answerText(received.front()));
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
                                                          char response, const char* prefix,
                                                          std::optional<std::string>* answer)
{
    auto text = requestContent(request, content, response, prefix, answer);
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
    return readRevision(nullptr);
}

std::optional<std::string> DeviceManager::readRevision(std::optional<std::string>* answer)
{
    auto revision =
        requestContent(READ_REV_REQ, {}, READ_REV_RESP, "DeviceManager readRevision", answer);
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

std::optional<SettingsData> DeviceManager::readSettings(std::vector<std::string>* answers)
{
    std::vector<Bytes> received;
    auto results = m_serialManager.sendWithResponses(READ_SETTINGS_REQ, nullptr, 0, 6,
                                                     RESPONSE_TIMEOUT, &received);
    if (answers) {
        answers->clear();
        for (const auto& frame : received)
            answers->push_back(answerText(frame));
    }
    if (!results || results->empty() || results->front().empty())
        return std::nullopt;
    auto settings = SettingsData::createFromResults(*results);
    if (!settings)
        logger().logDebug("DeviceManager readSettings: Invalid results received");
    return settings;
}

WriteResult DeviceManager::save(Setting setting, std::uint16_t value)
{
    const SettingInfo& info = settingInfo(setting);
    WriteResult result;
    auto echo = requestContent(info.request, std::to_string(value), info.response, info.logPrefix,
                               &result.answer);
    if (!echo)
        return result;
    auto number = scanLeadingInt(*echo);
    if (!number) {
        logger().logDebug("%s: Non numeric response content", info.logPrefix);
        return result;
    }
    // Compared on 16 bits: an echo 65536 above the value passes too.
    if (low16(*number) != value) {
        logger().logDebug("%s: Did not return saved value", info.logPrefix);
        return result;
    }
    logger().logDebug("%s: Success", info.logPrefix);
    result.confirmed = true;
    return result;
}

WriteResult DeviceManager::saveCurrentLimit(std::uint16_t value)
{
    return save(Setting::CurrentLimit, value);
}

WriteResult DeviceManager::saveIR(std::uint16_t value)
{
    return save(Setting::MinIRDetection, value);
}

WriteResult DeviceManager::savePositiveRotation(std::uint16_t value)
{
    return save(Setting::PositiveRotation, value);
}

WriteResult DeviceManager::saveNegativeRotation(std::uint16_t value)
{
    return save(Setting::NegativeRotation, value);
}

WriteResult DeviceManager::saveMotorSpeed(std::uint16_t value)
{
    return save(Setting::MotorSpeed, value);
}

WriteResult DeviceManager::saveCycleTimeout(std::uint16_t value)
{
    return save(Setting::CycleTimeout, value);
}

bool DeviceManager::saveAndExit()
{
    m_serialManager.sendWithoutResponse(SAVE_EXIT_REQ, nullptr, 0);
    return true;
}

std::optional<std::uint16_t> DeviceManager::readSensor(char request, char response,
                                                       const char* prefix, const char* notification,
                                                       const char* key,
                                                       std::optional<std::string>* answer)
{
    auto value = requestNumber(request, {}, response, prefix, answer);
    if (!value)
        return std::nullopt;
    logger().logDebug("%s: Success", prefix);
    post(notification, key, *value);
    return value;
}

namespace {

std::uint16_t reported(const std::optional<std::uint16_t>& value, bool* ok)
{
    if (ok)
        *ok = value.has_value();
    return value.value_or(VAL_UNDEF);
}

} // namespace

std::uint16_t DeviceManager::readVBatt()
{
    return readVBatt(nullptr);
}

std::uint16_t DeviceManager::readVBatt(std::optional<std::string>* answer, bool* ok)
{
    return reported(readSensor(READ_V_BATT_REQ, READ_V_BATT_RESP, "DeviceManager ReadVBatt",
                               ReadVBattEvent, "vbatt", answer),
                    ok);
}

bool DeviceManager::keepAliveAnswered()
{
    std::optional<std::string> answer;
    bool ok = false;
    const std::uint16_t value = readVBatt(&answer, &ok);
    if (!answer)
        return false;
    KeepAliveObserver observer;
    {
        std::lock_guard lock(m_observerMutex);
        observer = m_keepAliveObserver;
    }
    if (observer)
        observer(ok ? std::optional(value) : std::nullopt, *answer);
    return true;
}

void DeviceManager::setKeepAliveObserver(KeepAliveObserver observer)
{
    std::lock_guard lock(m_observerMutex);
    m_keepAliveObserver = std::move(observer);
}

std::uint16_t DeviceManager::readReedSensor()
{
    return readReedSensor(nullptr);
}

std::uint16_t DeviceManager::readReedSensor(std::optional<std::string>* answer, bool* ok)
{
    return reported(readSensor(READ_REED_SENSOR_REQ, READ_REED_SENSOR_RESP,
                               "DeviceManager readReedSensor", MonitorReedSensorEvent, "value",
                               answer),
                    ok);
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
    return readIR(nullptr);
}

std::uint16_t DeviceManager::readIR(std::optional<std::string>* answer, bool* ok)
{
    if (ok)
        *ok = false;
    // The IR reply is a text line ("IR: <n>"), not a coded answer.
    std::vector<Bytes> received;
    auto results =
        m_serialManager.sendWithResponses(READ_IR_REQ, nullptr, 0, 1, RESPONSE_TIMEOUT, &received);
    if (answer)
        *answer = received.empty() ? std::nullopt : std::optional(answerText(received.front()));
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
    if (ok)
        *ok = true;
    return reply.value;
}

void DeviceManager::startMotorMonitoring()
{
    m_serialManager.sendWithoutResponse(TEST_MOTOR_REQ, nullptr, 0);
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
