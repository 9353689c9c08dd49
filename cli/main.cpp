#include "cli/Cli.h"
#include "cli/Interrupt.h"
#include "support/ErrorText.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// The dravinel-cli program: the signal handling around runCli. Ctrl-C and SIGTERM reach the command
// through a pipe, as a signal handler may do little more than write a byte.

namespace {

int gSignalPipe[2] = {-1, -1};

constexpr char kInterruptByte = 'i';
constexpr char kQuitByte = 'q';

void onSignal(int)
{
    const int saved = errno;
    const char byte = kInterruptByte;
    [[maybe_unused]] const auto written = write(gSignalPipe[1], &byte, 1);
    errno = saved;
}

} // namespace

int main(int argc, char** argv)
{
    if (pipe2(gSignalPipe, O_CLOEXEC) != 0) {
        std::cerr << "dravinel-cli: pipe2 failed: " << dravinel::errorText(errno) << "\n";
        return 1;
    }
    // Wakes every wait of the command on Ctrl-C; ends when main writes the quit byte.
    std::thread watcher([] {
        char byte = 0;
        for (;;) {
            const ssize_t n = read(gSignalPipe[0], &byte, 1);
            if (n < 0 && errno == EINTR)
                continue;
            if (n != 1 || byte == kQuitByte)
                return;
            dravinel::cli::requestInterrupt();
        }
    });

    struct sigaction action
    {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    // A second Ctrl-C, while the first is being handled, ends the program the usual way.
    action.sa_flags = SA_RESETHAND | SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    const std::vector<std::string> args(argv + 1, argv + argc);
    const int code = dravinel::cli::runCli(args, std::cout, std::cerr);
    std::cout.flush();

    const char quit = kQuitByte;
    while (write(gSignalPipe[1], &quit, 1) < 0 && errno == EINTR) {
    }
    watcher.join();
    return code;
}
