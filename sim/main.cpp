#include "sim/DeviceSimulator.h"
#include "support/ErrorText.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <pthread.h>
#include <string>
#include <vector>

// Serves one simulated device until interrupted. The port path is the first line of standard
// output, so a script or a test can start the program and open what it prints.

namespace {

int run(int argc, char** argv)
{
    dravinel::sim::DeviceSimulator::Options options;
    std::uint32_t responseDelayMs = 0;
    std::vector<std::string> answers;

    CLI::App app{"Plays the device on a pseudo-terminal and prints the port path on the first "
                 "line.\nRuns until SIGINT or SIGTERM. SIGUSR1 unplugs the device, SIGUSR2 plugs "
                 "it in again.",
                 "dravinel-sim"};
    app.add_flag("--wire-time", options.wireTime, "pace every answer as a 115200-baud line would");
    app.add_option("--response-delay", responseDelayMs,
                   "wait this many milliseconds before each answer, as a slow device")
        ->option_text("MS");
    app.add_option("--answer", answers,
                   "answer the request CODE with LINE instead (S=s,7: motor speed writes are "
                   "stored but echoed wrongly)")
        ->option_text("CODE=LINE")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return text.size() >= 2 && text[1] == '=' ? std::string()
                                                          : "not CODE=LINE: " + text;
            },
            "CODE=LINE"));
    app.add_option("--revision", options.revision, "the firmware revision to report (default 2.1)");
    app.add_option("--link-dir", options.linkDir,
                   "folder for the port's symlink (default: a fresh temporary folder)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Bad arguments end with 2, as they always have; --help with 0.
        const int code = app.exit(e);
        return code == 0 ? 0 : 2;
    }
    const std::chrono::milliseconds responseDelay{responseDelayMs};

    // Blocked before any thread starts, so every thread inherits the mask and only sigwait
    // below receives these signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    if (const int err = pthread_sigmask(SIG_BLOCK, &signals, nullptr); err != 0) {
        std::cerr << "dravinel-sim: pthread_sigmask failed: " << dravinel::errorText(err) << " ("
                  << err << ")\n";
        return 1;
    }

    dravinel::sim::DeviceSimulator simulator(options);
    if (!simulator.start()) {
        std::cerr << "dravinel-sim: could not start the simulated device\n";
        return 1;
    }
    simulator.setResponseDelay(responseDelay);
    for (const auto& answer : answers)
        simulator.setAnswerOverride(answer[0], answer.substr(2));
    std::cout << simulator.portPath() << std::endl;
    std::cerr << "dravinel-sim: serving " << simulator.slavePath() << "\n";

    for (;;) {
        int received = 0;
        if (const int err = sigwait(&signals, &received); err != 0) {
            std::cerr << "dravinel-sim: sigwait failed: " << dravinel::errorText(err) << " (" << err
                      << ")\n";
            break;
        }
        if (received == SIGUSR1)
            simulator.unplug();
        else if (received == SIGUSR2)
            simulator.plugIn();
        else
            break;
    }
    simulator.stop();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    // Only a failure to set up the options or to allocate can throw; it ends the program as a
    // failed start rather than an abort.
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "dravinel-sim: " << e.what() << "\n";
    }
    return 1;
}
