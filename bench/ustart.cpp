// ustart - time from exec of a daemon until it accepts a connection, or until it answers.
//
//   ustart --connect ADDRESS [--runs N] [--framing NAME --request TEXT] -- COMMAND [ARG ...]
//
// Starts the command N times, tries to connect every 20 us (and, with --request, waits
// for the first answer), then ends it with
// SIGTERM, or SIGKILL where half a second of that does not help. Prints median, least and most in
// milliseconds.

#include "uwire.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace uwire;

int main(int argc, char** argv)
{
    static const option longs[] = {{"connect", 1, nullptr, 'c'},
                                   {"runs", 1, nullptr, 'n'},
                                   {"framing", 1, nullptr, 'f'},
                                   {"request", 1, nullptr, 'r'},
                                   {nullptr, 0, nullptr, 0}};
    std::string address, framing_name = "newline-len32", request;
    int runs = 11, ch;
    while ((ch = getopt_long(argc, argv, "+", longs, nullptr)) != -1)
        if (ch == 'c')
            address = optarg;
        else if (ch == 'n')
            runs = atoi(optarg);
        else if (ch == 'f')
            framing_name = optarg;
        else if (ch == 'r')
            request = optarg;
        else
            die("usage: see the head of ustart.cpp");
    if (address.empty() || optind >= argc || runs < 1)
        die("ustart --connect ADDRESS [--runs N] -- COMMAND ...");

    std::vector<double> ms;
    for (int i = 0; i < runs; ++i) {
        if (address[0] == '/')
            unlink(address.c_str());
        uint64_t start = now_ns();
        pid_t pid = fork();
        if (pid == 0) {
            int null = open("/dev/null", O_RDWR);
            dup2(null, 1);
            dup2(null, 2);
            execvp(argv[optind], argv + optind);
            _exit(127);
        }
        int fd;
        while ((fd = connect_to(address)) < 0) {
            if (now_ns() - start > 10000000000u || waitpid(pid, nullptr, WNOHANG) == pid)
                die("%s does not accept connections", argv[optind]);
            usleep(20);
        }
        if (!request.empty()) {
            auto framing = make_framing(framing_name, request.size());
            framing->greet(fd);
            std::string bytes = framing->encode(request);
            std::vector<char> answer;
            write_all(fd, bytes.data(), bytes.size());
            read_frame(fd, *framing, answer);
        }
        ms.push_back(double(now_ns() - start) / 1e6);
        close(fd);
        // A daemon that listens before it handles signals can miss the first.
        for (int tries = 0; waitpid(pid, nullptr, WNOHANG) != pid; ++tries) {
            kill(pid, tries < 50 ? SIGTERM : SIGKILL);
            usleep(10000);
        }
    }
    std::sort(ms.begin(), ms.end());
    printf("start_ms=%.2f min_ms=%.2f max_ms=%.2f runs=%d\n", ms[ms.size() / 2], ms.front(), ms.back(), runs);
    return 0;
}
