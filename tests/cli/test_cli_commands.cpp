#include "cli/Cli.h"
#include "cli/Json.h"
#include "protocol/Globals.h"
#include "serial/serial.h"
#include "sim/DeviceSimulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

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

void expectOutput(const CliRun& run, const std::string& out)
{
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, out);
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

// The writes the device received; the revision read and keep-alive are not of interest here.
std::vector<std::string> writes(const sim::DeviceSimulator& sim)
{
    std::vector<std::string> result;
    for (const auto& request : sim.requests())
        if (std::string("CIRLST").find(request.code) != std::string::npos)
            result.push_back(std::string(1, request.code) + request.content);
    return result;
}

// Six values as the settings object of a backup file or of get --json.
std::string settingsJson(const std::array<int, 6>& values)
{
    static const char* const names[] = {"current_limit",     "ir_detection", "positive_rotation",
                                        "negative_rotation", "motor_speed",  "cycle_timeout"};
    std::string text = "{";
    for (std::size_t i = 0; i < values.size(); ++i)
        text +=
            (i > 0 ? ", \"" : "\"") + std::string(names[i]) + "\": " + std::to_string(values[i]);
    return text + "}";
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
        m_dir = fs::temp_directory_path() / ("dravinel-cli-test-" + std::to_string(getpid()));
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
    std::string writeFile(const std::string& name, const std::string& text) const
    {
        std::ofstream(file(name)) << text;
        return file(name);
    }

    std::unique_ptr<sim::DeviceSimulator> m_sim;
    fs::path m_dir;
};

TEST_F(CliTest, InfoAndGetPrintAlignedTextOrOneJsonObject)
{
    expectOutput(onDevice({"info"}), "revision  2.1\nbattery   11.71 V (raw 1300)\n");
    expectOutput(onDevice({"--json", "info"}),
                 "{\"revision\": \"2.1\", \"battery_raw\": 1300, \"battery_volts\": 11.71}\n");

    m_sim->setSettings({0, 300, 40, 35, 200, 65535});
    auto run = onDevice({"get"});
    expectOutput(run, "current-limit      0\n"
                      "ir-detection       300\n"
                      "positive-rotation  40\n"
                      "negative-rotation  35\n"
                      "motor-speed        200\n"
                      "cycle-timeout      65535\n");
    EXPECT_EQ(run.err, "") << "the log is off unless asked for";
    expectOutput(onDevice({"get", "--json"}), settingsJson({0, 300, 40, 35, 200, 65535}) + "\n");

    // -vv brings the log, frame trace included, to the error stream only.
    run = onDevice({"-vv", "get", "--json"});
    expectOutput(run, settingsJson({0, 300, 40, 35, 200, 65535}) + "\n");
    EXPECT_NE(run.err.find(" <= RESPONSE : "), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(" => : "), std::string::npos);
}

TEST_F(CliTest, SetWritesEveryNameAsTheDeviceExpectsIt)
{
    expectOutput(onDevice({"set", "current-limit=0", "ir-detection=65535", "positive-rotation=7",
                           "negative-rotation=0012", "motor-speed=210", "cycle-timeout=5"}),
                 "current-limit      0      confirmed\n"
                 "ir-detection       65535  confirmed\n"
                 "positive-rotation  7      confirmed\n"
                 "negative-rotation  12     confirmed\n"
                 "motor-speed        210    confirmed\n"
                 "cycle-timeout      5      confirmed\n");
    EXPECT_EQ(writes(*m_sim),
              (std::vector<std::string>{"C0", "I65535", "R7", "L12", "S210", "T5"}));

    m_sim->clearRequests();
    expectOutput(onDevice({"--json", "set", "motor-speed=99", "current-limit=130"}),
                 "{\"motor_speed\": 99, \"current_limit\": 130}\n");
    EXPECT_EQ(writes(*m_sim), (std::vector<std::string>{"S99", "C130"}));
}

TEST_F(CliTest, BadInputIsRefusedWithOneLineAndNothingSent)
{
    // The parsing itself is covered on its own; here, each kind of refusal ends the command.
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"set", "motor-speed=1", "speed=2"}, "unknown setting 'speed'"},
        {{"set", "motor-speed=1", "cycle-timeout=65536"}, "'65536' is not a whole number"},
        {{"set"}, "set needs at least one NAME=VALUE"},
        {{"monitor", "voltage"}, "monitor takes motor, ir or position"},
        {{"get", "extra"}, "get takes no arguments"},
        {{"fly"}, "unknown command 'fly'"},
        {{"restore", file("absent.json")}, "cannot read"},
        {{"restore", writeFile("broken.json", "{\"current_limit\": 1,")}, "expected a key"},
        {{"restore", writeFile("big.json", settingsJson({1, 2, 3, 4, 5, 70000}))},
         "\"cycle_timeout\" must be a whole number from 0 to 65535"},
    };
    for (const auto& [args, message] : cases) {
        const auto run = onDevice(args);
        EXPECT_EQ(run.code, 2) << message;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(lines(run.err).size(), 1u) << run.err;
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    }
    // Refused before any connection: the device saw nothing at all.
    EXPECT_EQ(m_sim->requests().size(), 0u);
}

TEST_F(CliTest, BackupChangeAndRestoreBringBackTheSettings)
{
    const std::array original{120, 300, 40, 35, 200, 90};
    const std::string backupFile = file("device.json");
    expectOutput(onDevice({"backup", backupFile}),
                 "revision 2.1 and 6 settings saved to " + backupFile + "\n");
    std::ifstream stream(backupFile);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}),
              "{\n  \"revision\": \"2.1\",\n  \"current_limit\": 120,\n"
              "  \"ir_detection\": 300,\n  \"positive_rotation\": 40,\n"
              "  \"negative_rotation\": 35,\n  \"motor_speed\": 200,\n"
              "  \"cycle_timeout\": 90\n}\n");
    EXPECT_FALSE(fs::exists(backupFile + ".tmp"));
    expectOutput(onDevice({"--json", "backup", backupFile}),
                 "{\"file\": " + jsonQuote(backupFile) + ", \"revision\": \"2.1\", " +
                     settingsJson(original).substr(1) + "\n");

    ASSERT_EQ(onDevice({"set", "current-limit=1", "motor-speed=2", "cycle-timeout=3"}).code, 0);
    m_sim->clearRequests();
    expectOutput(onDevice({"restore", backupFile}),
                 "setting            before  written  confirmed\n"
                 "current-limit           1      120  yes\n"
                 "ir-detection          300      300  yes\n"
                 "positive-rotation      40       40  yes\n"
                 "negative-rotation      35       35  yes\n"
                 "motor-speed             2      200  yes\n"
                 "cycle-timeout           3       90  yes\n");
    EXPECT_EQ(writes(*m_sim),
              (std::vector<std::string>{"C120", "I300", "R40", "L35", "S200", "T90"}));
    expectOutput(onDevice({"--json", "get"}), settingsJson(original) + "\n");

    const auto run = onDevice({"--json", "restore", backupFile});
    EXPECT_EQ(run.code, 0) << run.err;
    const std::string unchanged = "\"attempted\": true, \"confirmed\": true}";
    EXPECT_EQ(run.out.find("{\"file\": " + jsonQuote(backupFile) +
                           ", \"current_limit\": {\"before\": 120, \"written\": 120, " + unchanged +
                           ", \"ir_detection\": {"),
              0u)
        << run.out;
    EXPECT_TRUE(run.out.ends_with("\"cycle_timeout\": {\"before\": 90, \"written\": 90, " +
                                  unchanged + "}\n"))
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

    m_sim->clearRequests();
    run = onDevice({"restore", writeFile("values.json", settingsJson({11, 12, 13, 14, 15, 16}))});
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
    const auto done = [](const std::string& row) { return row.find(" ms  done     ") != row.npos; };
    EXPECT_EQ(std::ranges::count_if(rows, done), 2) << run.out;
    EXPECT_NE(rows.back().find("done"), std::string::npos);
    EXPECT_NE(rows.front().find(" ms  current  "), std::string::npos) << run.out;

    run = onDevice({"--json", "monitor", "motor", "--count", "3"});
    EXPECT_EQ(run.code, 0) << run.err;
    const std::regex samples(R"((\{"ms": \d+, "current": -?\d+\}\n){3})");
    EXPECT_TRUE(std::regex_match(run.out, samples)) << run.out;

    const auto start = Clock::now();
    run = onDevice({"--json", "monitor", "ir", "--count", "2"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_GE(Clock::now() - start, 900ms); // the second reading waits for its second
    EXPECT_TRUE(std::regex_match(run.out, std::regex(R"((\{"ms": \d+, "ir": \d+\}\n){2})")))
        << run.out;
    EXPECT_EQ(m_sim->requestCount(READ_IR_REQ), 2u);

    run = onDevice({"monitor", "position", "--count", "1"});
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_NE(run.out.find(" ms  position "), std::string::npos) << run.out;
}

TEST_F(CliTest, PortsAndSaveExit)
{
    auto run = cli({"--port", m_sim->portPath(), "ports"});
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(lines(run.out).front(), "* " + m_sim->portPath() + "  (--port)");
    run = cli({"--port", "/dev/null", "--json", "ports"});
    std::string error;
    ASSERT_TRUE(parseJson(run.out, error)) << error;
    EXPECT_EQ(run.out.find("{\"ports\": [{\"path\": \"/dev/null\", \"dravinel\": false, "
                           "\"given\": true}"),
              0u)
        << run.out;

    expectOutput(onDevice({"save-exit"}), "save-and-exit sent; the device stores its settings and "
                                          "leaves configuration mode\n");
    EXPECT_TRUE(m_sim->savedAndExited());
    expectOutput(onDevice({"--json", "save-exit"}), "{\"sent\": \"save-exit\"}\n");
}

} // namespace
} // namespace dravinel::cli
