#include "sim/DeviceSimulator.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <pthread.h>
#include <string_view>
#include <utility>
#include <vector>

// Serves one simulated device until interrupted. The port path is the first line of standard
// output, so a script or a test can start the program and open what it prints.

namespace {

void printUsage(std::ostream& out)
{
    out << "Usage: dravinel-sim [--wire-time] [--response-delay MS] [--answer CODE=LINE]...\n"
           "                    [--revision TEXT] [--link-dir DIR]\n"
           "\n"
           "Plays the device on a pseudo-terminal and prints the port path on the first line.\n"
           "Runs until SIGINT or SIGTERM. SIGUSR1 unplugs the device, SIGUSR2 plugs it in again.\n"
           "\n"
           "  --wire-time          pace every answer as a 115200-baud line would\n"
           "  --response-delay MS  wait this long before each answer, as a slow device\n"
           "  --answer CODE=LINE   answer the request CODE with LINE instead (S=s,7: motor\n"
           "                       speed writes are stored but echoed wrongly)\n"
           "  --revision TEXT      the firmware revision to report (default 2.1)\n"
           "  --link-dir DIR       folder for the port's symlink (default: a fresh temporary "
           "folder)\n"
           "  --help               show this text\n";
}

} // namespace

int main(int argc, char** argv)
{
    dravinel::sim::DeviceSimulator::Options options;
    std::chrono::milliseconds responseDelay{0};
    std::vector<std::pair<char, std::string>> answers;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            printUsage(std::cout);
            return 0;
        }
        if (arg == "--wire-time") {
            options.wireTime = true;
        } else if (arg == "--response-delay" && i + 1 < argc) {
            responseDelay = std::chrono::milliseconds(std::atoi(argv[++i]));
        } else if (arg == "--answer" && i + 1 < argc && std::strlen(argv[i + 1]) >= 2 &&
                   argv[i + 1][1] == '=') {
            answers.emplace_back(argv[i + 1][0], argv[i + 1] + 2);
            ++i;
        } else if (arg == "--revision" && i + 1 < argc) {
            options.revision = argv[++i];
        } else if (arg == "--link-dir" && i + 1 < argc) {
            options.linkDir = argv[++i];
        } else {
            std::cerr << "dravinel-sim: unknown or incomplete argument '" << arg << "'\n";
            printUsage(std::cerr);
            return 2;
        }
    }

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
        std::cerr << "dravinel-sim: pthread_sigmask failed: " << std::strerror(err) << " (" << err
                  << ")\n";
        return 1;
    }

    dravinel::sim::DeviceSimulator simulator(options);
    if (!simulator.start()) {
        std::cerr << "dravinel-sim: could not start the simulated device\n";
        return 1;
    }
    simulator.setResponseDelay(responseDelay);
    for (const auto& [code, line] : answers)
        simulator.setAnswerOverride(code, line);
    std::cout << simulator.portPath() << std::endl;
    std::cerr << "dravinel-sim: serving " << simulator.slavePath() << "\n";

    for (;;) {
        int received = 0;
        if (const int err = sigwait(&signals, &received); err != 0) {
            std::cerr << "dravinel-sim: sigwait failed: " << std::strerror(err) << " (" << err
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
