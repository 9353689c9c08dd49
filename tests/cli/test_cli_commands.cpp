#include "cli/Cli.h"
#include "cli/Interrupt.h"
#include "cli/Json.h"
#include "device/DeviceManager.h"
#include "protocol/Globals.h"
#include "serial/serial.h"
#include "sim/DeviceSimulator.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace dravinel::cli {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

struct CliRun
{
    int code = -1;
    std::string out;
    std::string err;
};

CliRun cli(std::vector<std::string> args)
{
    std::ostringstream out;
    std::ostringstream err;
    const int code = runCli(args, out, err);
    return {code, out.str(), err.str()};
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

std::vector<std::string> requestTexts(const sim::DeviceSimulator& sim)
{
    std::vector<std::string> texts;
    for (const auto& request : sim.requests())
        texts.push_back(std::string(1, request.code) + request.content);
    return texts;
}

// The writes among the requests; the revision read and keep-alive are not of interest here.
std::vector<std::string> writes(const sim::DeviceSimulator& sim)
{
    std::vector<std::string> result;
    for (auto& text : requestTexts(sim))
        if (std::string("CIRLST").find(text[0]) != std::string::npos)
            result.push_back(text);
    return result;
}

class CliTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        sim::DeviceSimulator::Options options;
        options.motorPass = 300ms;
        options.motorSampleInterval = 30ms;
        m_sim = std::make_unique<sim::DeviceSimulator>(options);
        ASSERT_TRUE(m_sim->start());
        m_sim->setBatteryRaw(1300);
        m_dir = fs::temp_directory_path() /
                ("dravinel-cli-test-" + std::to_string(getpid()) + "-" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(m_dir);
    }
    void TearDown() override
    {
        std::error_code ec;
        fs::remove_all(m_dir, ec);
    }

    // A command against the simulator, named by its port.
    CliRun onDevice(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--port", m_sim->portPath()});
        return cli(std::move(args));
    }

    std::string file(const std::string& name) const { return (m_dir / name).string(); }

    std::unique_ptr<sim::DeviceSimulator> m_sim;
    fs::path m_dir;
};

TEST_F(CliTest, InfoAndGetPrintAlignedTextOrOneJsonObject)
{
    auto run = onDevice({"info"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "revision  2.1\nbattery   11.71 V (raw 1300)\n");
    run = onDevice({"--json", "info"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out,
              "{\"revision\": \"2.1\", \"battery_raw\": 1300, \"battery_volts\": 11.71}\n");

    sim::SimSettings values;
    values.currentLimit = 0;
    values.cycleTimeoutMins = 65535;
    m_sim->setSettings(values);
    run = onDevice({"get"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "current-limit      0\n"
                       "ir-detection       300\n"
                       "positive-rotation  40\n"
                       "negative-rotation  35\n"
                       "motor-speed        200\n"
                       "cycle-timeout      65535\n");
    // The log is off unless asked for.
    EXPECT_EQ(run.err, "");
    run = onDevice({"get", "--json"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "{\"current_limit\": 0, \"ir_detection\": 300, \"positive_rotation\": 40, "
                       "\"negative_rotation\": 35, \"motor_speed\": 200, \"cycle_timeout\": "
                       "65535}\n");

    // -vv brings the log, frame trace included, to the error stream only.
    run = onDevice({"-vv", "get", "--json"});
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(lines(run.out).size(), 1u);
    EXPECT_NE(run.err.find(" <= RESPONSE : "), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(" => : "), std::string::npos);
}

TEST_F(CliTest, SetWritesEveryNameAsTheDeviceExpectsIt)
{
    auto run = onDevice({"set", "current-limit=0", "ir-detection=65535", "positive-rotation=7",
                         "negative-rotation=0012", "motor-speed=210", "cycle-timeout=5"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(writes(*m_sim),
              (std::vector<std::string>{"C0", "I65535", "R7", "L12", "S210", "T5"}));
    const auto stored = m_sim->settings();
    EXPECT_EQ(stored.currentLimit, 0);
    EXPECT_EQ(stored.minIRDetection, 65535);
    EXPECT_EQ(stored.negativeRotation, 12);
    EXPECT_EQ(stored.cycleTimeoutMins, 5);
    EXPECT_EQ(run.out, "current-limit      0      confirmed\n"
                       "ir-detection       65535  confirmed\n"
                       "positive-rotation  7      confirmed\n"
                       "negative-rotation  12     confirmed\n"
                       "motor-speed        210    confirmed\n"
                       "cycle-timeout      5      confirmed\n");

    m_sim->clearRequests();
    run = onDevice({"--json", "set", "motor-speed=99", "current-limit=130"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(writes(*m_sim), (std::vector<std::string>{"S99", "C130"}));
    EXPECT_EQ(run.out, "{\"motor_speed\": 99, \"current_limit\": 130}\n");
}

TEST_F(CliTest, BadInputIsRefusedWithOneLineAndNothingSent)
{
    const auto refused = [&](std::vector<std::string> args, const std::string& message) {
        auto run = onDevice(args);
        EXPECT_EQ(run.code, 2) << args.back();
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(lines(run.err).size(), 1u) << run.err;
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    };
    refused({"set", "motor-speed=1", "speed=2"}, "unknown setting 'speed'");
    refused({"set", "motor-speed=1", "cycle-timeout=65536"}, "'65536' is not a whole number");
    refused({"set", "motor-speed=-1"}, "'-1' is not a whole number");
    refused({"set", "motor-speed=2.5"}, "'2.5' is not a whole number");
    refused({"set", "motor-speed="}, "'' is not a whole number");
    refused({"set"}, "set needs at least one NAME=VALUE");
    refused({"monitor", "voltage"}, "monitor takes motor, ir or position");
    refused({"get", "extra"}, "get takes no arguments");
    refused({"fly"}, "unknown command 'fly'");
    refused({"restore", file("absent.json")}, "cannot read");

    const auto write = [&](const std::string& name, const std::string& text) {
        std::ofstream(file(name)) << text;
        return file(name);
    };
    refused({"restore", write("broken.json", "{\"current_limit\": 1,")}, "expected a key");
    refused({"restore", write("partial.json", "{\"current_limit\": 1}")},
            "\"ir_detection\" is missing");
    refused({"restore", write("big.json", "{\"current_limit\": 1, \"ir_detection\": 2, "
                                          "\"positive_rotation\": 3, \"negative_rotation\": 4, "
                                          "\"motor_speed\": 5, \"cycle_timeout\": 70000}")},
            "\"cycle_timeout\" must be a whole number from 0 to 65535");

    // Refused before any connection: the device saw nothing at all.
    EXPECT_TRUE(m_sim->requests().empty()) << requestTexts(*m_sim).front();
}

TEST_F(CliTest, BackupChangeAndRestoreBringBackTheSettings)
{
    const sim::SimSettings original = m_sim->settings();
    const std::string backupFile = file("device.json");
    auto run = onDevice({"backup", backupFile});
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "revision 2.1 and 6 settings saved to " + backupFile + "\n");
    std::ifstream stream(backupFile);
    const std::string text((std::istreambuf_iterator<char>(stream)), {});
    EXPECT_EQ(text, "{\n  \"revision\": \"2.1\",\n  \"current_limit\": 120,\n"
                    "  \"ir_detection\": 300,\n  \"positive_rotation\": 40,\n"
                    "  \"negative_rotation\": 35,\n  \"motor_speed\": 200,\n"
                    "  \"cycle_timeout\": 90\n}\n");
    EXPECT_FALSE(fs::exists(backupFile + ".tmp"));

    run = onDevice({"set", "current-limit=1", "motor-speed=2", "cycle-timeout=3"});
    ASSERT_EQ(run.code, 0) << run.err;
    m_sim->clearRequests();

    run = onDevice({"restore", backupFile});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(writes(*m_sim),
              (std::vector<std::string>{"C120", "I300", "R40", "L35", "S200", "T90"}));
    const auto restored = m_sim->settings();
    EXPECT_EQ(restored.currentLimit, original.currentLimit);
    EXPECT_EQ(restored.motorSpeed, original.motorSpeed);
    EXPECT_EQ(restored.cycleTimeoutMins, original.cycleTimeoutMins);
    EXPECT_EQ(run.out, "setting            before  written  confirmed\n"
                       "current-limit           1      120  yes\n"
                       "ir-detection          300      300  yes\n"
                       "positive-rotation      40       40  yes\n"
                       "negative-rotation      35       35  yes\n"
                       "motor-speed             2      200  yes\n"
                       "cycle-timeout           3       90  yes\n");

    run = onDevice({"--json", "backup", backupFile});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "{\"file\": " + jsonQuote(backupFile) +
                           ", \"revision\": \"2.1\", \"current_limit\": 120, \"ir_detection\": "
                           "300, \"positive_rotation\": 40, \"negative_rotation\": 35, "
                           "\"motor_speed\": 200, \"cycle_timeout\": 90}\n");
    run = onDevice({"--json", "restore", backupFile});
    EXPECT_EQ(run.code, 0) << run.err;
    std::string error;
    const auto json = parseJson(run.out, error);
    ASSERT_TRUE(json) << error;
    ASSERT_EQ(json->members.size(), 7u);
    EXPECT_EQ(json->members[1].first, "current_limit");
    const std::string firstEntry = JsonObject()
                                       .add("before", std::int64_t{120})
                                       .add("written", std::int64_t{120})
                                       .add("attempted", true)
                                       .add("confirmed", true)
                                       .str();
    EXPECT_EQ(
        run.out.find("{\"file\": " + jsonQuote(backupFile) + ", \"current_limit\": " + firstEntry),
        0u)
        << run.out;
}

TEST_F(CliTest, AnUnconfirmedWriteStopsTheRestAndSaysWhatCameBack)
{
    m_sim->setAnswerOverride(SAVE_MOTOR_SPEED_REQ, "s,7");
    auto run = onDevice({"set", "current-limit=10", "motor-speed=200", "cycle-timeout=5"});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.err, "dravinel-cli: the device did not confirm motor-speed=200: it answered "
                       "\"s,7\"; the remaining writes were not attempted\n");
    EXPECT_EQ(writes(*m_sim), (std::vector<std::string>{"C10", "S200"}));
    EXPECT_EQ(run.out, "current-limit      10     confirmed\n");

    const std::string backupFile = file("values.json");
    std::ofstream(backupFile) << "{\"current_limit\": 11, \"ir_detection\": 12, "
                                 "\"positive_rotation\": 13, \"negative_rotation\": 14, "
                                 "\"motor_speed\": 15, \"cycle_timeout\": 16}";
    m_sim->clearRequests();
    run = onDevice({"restore", backupFile});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(writes(*m_sim), (std::vector<std::string>{"C11", "I12", "R13", "L14", "S15"}));
    const auto rows = lines(run.out);
    ASSERT_EQ(rows.size(), 7u) << run.out;
    EXPECT_EQ(rows[4], "negative-rotation      35       14  yes");
    EXPECT_EQ(rows[5], "motor-speed           200       15  NO (answered \"s,7\")");
    EXPECT_EQ(rows[6], "cycle-timeout          90       16  not attempted");
}

TEST_F(CliTest, MonitorPrintsTheMotorTestAndSensorReadings)
{
    auto run = onDevice({"monitor", "motor"});
    EXPECT_EQ(run.code, 0) << run.err;
    auto rows = lines(run.out);
    ASSERT_GE(rows.size(), 4u);
    int done = 0;
    for (const auto& row : rows)
        done += row.find(" ms  done     ") != std::string::npos ? 1 : 0;
    EXPECT_EQ(done, 2) << run.out;
    EXPECT_NE(rows.back().find("done"), std::string::npos);
    EXPECT_NE(rows.front().find(" ms  current  "), std::string::npos) << run.out;

    run = onDevice({"--json", "monitor", "motor", "--count", "3"});
    EXPECT_EQ(run.code, 0) << run.err;
    rows = lines(run.out);
    ASSERT_EQ(rows.size(), 3u) << run.out;
    for (const auto& row : rows) {
        std::string error;
        const auto json = parseJson(row, error);
        ASSERT_TRUE(json) << row;
        ASSERT_EQ(json->members.size(), 2u);
        EXPECT_EQ(json->members[0].first, "ms");
        EXPECT_EQ(json->members[1].first, "current");
        EXPECT_EQ(json->members[1].second.kind, JsonValue::Kind::Number);
    }

    const auto start = Clock::now();
    run = onDevice({"--json", "monitor", "ir", "--count", "2"});
    const auto took = Clock::now() - start;
    EXPECT_EQ(run.code, 0) << run.err;
    rows = lines(run.out);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_NE(rows[0].find("\"ir\": "), std::string::npos);
    EXPECT_GE(took, 900ms); // the second reading waits for its second
    EXPECT_EQ(m_sim->requestCount(READ_IR_REQ), 2u);

    run = onDevice({"monitor", "position", "--count", "1"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_NE(run.out.find(" ms  position "), std::string::npos) << run.out;
}

TEST_F(CliTest, CtrlCEndsAMonitorCleanly)
{
    std::thread interrupter([&] {
        m_sim->waitForRequests(READ_IR_REQ, 2, 5s);
        requestInterrupt();
    });
    const auto start = Clock::now();
    auto run = onDevice({"monitor", "ir"});
    interrupter.join();
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_LT(Clock::now() - start, 3500ms);
    EXPECT_EQ(lines(run.out).size(), 2u) << run.out;
    // The manager is stopped: nothing more reaches the device.
    const auto count = m_sim->requests().size();
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(m_sim->requests().size(), count);
}

TEST_F(CliTest, PortsAndSaveExit)
{
    auto run = cli({"--port", m_sim->portPath(), "ports"});
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(lines(run.out).front(), "* " + m_sim->portPath() + "  (--port)");
    run = cli({"--port", "/dev/null", "--json", "ports"});
    std::string error;
    const auto json = parseJson(run.out, error);
    ASSERT_TRUE(json) << error;
    ASSERT_EQ(json->members.front().first, "ports");
    EXPECT_EQ(JsonObject().add("path", "/dev/null").add("dravinel", false).add("given", true).str(),
              run.out.substr(11, 55));

    run = onDevice({"save-exit"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_TRUE(m_sim->savedAndExited());
}

TEST(CliNoDeviceTest, EveryPortTriedIsListedWithItsReason)
{
    const fs::path dir =
        fs::temp_directory_path() / ("dravinel-cli-nodev-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const std::string plainFile = (dir / "not-a-tty").string();
    std::ofstream(plainFile) << "x";
    sim::DeviceSimulator silent;
    ASSERT_TRUE(silent.start());
    silent.setMute(true);
    register_port_path(plainFile);
    register_port_path(silent.portPath());

    const std::string missing = (dir / "absent").string();
    auto run = cli({"--port", missing, "get"});
    unregister_port_path(plainFile);
    unregister_port_path(silent.portPath());
    EXPECT_EQ(run.code, 3);
    EXPECT_EQ(run.out, "");
    const auto rows = lines(run.err);
    ASSERT_EQ(rows.size(), 4u) << run.err;
    SCOPED_TRACE(run.err);
    EXPECT_EQ(rows[0], "dravinel-cli: no device found; ports tried:");
    // In the order tried: the two registered by the test came before the one of --port.
    EXPECT_EQ(rows[1].find("  " + plainFile), 0u);
    EXPECT_NE(rows[1].find("could not be opened: ioctl(TIOCEXCL): Inappropriate ioctl for device "
                           "(25)"),
              std::string::npos);
    EXPECT_EQ(rows[2].find("  " + silent.portPath()), 0u);
    EXPECT_NE(rows[2].find("opened, but no answer to the revision request"), std::string::npos);
    EXPECT_EQ(rows[3].find("  " + missing), 0u);
    EXPECT_NE(rows[3].find("not found (open: No such file or directory (2))"), std::string::npos);
    std::error_code ec;
    fs::remove_all(dir, ec);
}

TEST(CliEngineTest, PortAttemptsAndOpenErrorsAreKept)
{
    // The open error belongs to the thread that tried.
    EXPECT_EQ(open_serial_port("/nonexistent/port"), -1);
    EXPECT_EQ(last_open_error(), "open: No such file or directory (2)");
    std::thread([] { EXPECT_EQ(last_open_error(), ""); }).join();

    sim::DeviceSimulator device;
    ASSERT_TRUE(device.start());
    const int fd = open_serial_port(device.slavePath().c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(last_open_error(), "");
    close_serial_port(fd);

    register_port_path("/nonexistent/port");
    register_port_path(device.portPath());
    auto manager = DeviceManager::create();
    const auto deadline = Clock::now() + 5s;
    while (manager->getConnectionState() != Connected && Clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    const auto attempts = manager->getPortAttempts();
    manager->stop();
    EXPECT_TRUE(manager->waitUntilStopped(5s));
    unregister_port_path("/nonexistent/port");
    unregister_port_path(device.portPath());
    ASSERT_EQ(attempts.size(), 2u);
    EXPECT_EQ(attempts[0].path, "/nonexistent/port");
    EXPECT_EQ(attempts[0].outcome, PortAttempt::Outcome::CouldNotOpen);
    EXPECT_EQ(attempts[0].reason, "open: No such file or directory (2)");
    EXPECT_EQ(attempts[1].path, device.portPath());
    EXPECT_EQ(attempts[1].outcome, PortAttempt::Outcome::Answered);
}

} // namespace
} // namespace dravinel::cli
