#pragma once

#include <functional>
#include <memory>

namespace orv::daemon {

/// One daemon process: its command line, its signals and the order of its hooks.
///
/// The framework owns the options -f/--foreground (the default), -d/--daemonize, -l/--log-level N, --version
/// and --help. SIGTERM and SIGINT make the stop descriptor readable, and so does SIGHUP in the foreground,
/// unless the starter ignored it. SIGPIPE is ignored, and SIGHUP in the background; SIGCHLD is not, even if
/// the starter did so. Standard streams that the starter has closed lead to /dev/null.
class Instance {
public:
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;
    virtual ~Instance() = default;

    /// A descriptor that becomes and stays readable when the daemon is asked to stop, or -1. Each call gives
    /// the same one. The caller closes it.
    virtual int on_stop_pipe() = 0;

    /// Goes to the background if the command line says so, calls the init hook and, if it returned true, the
    /// run hook. Returns the process's exit status: 1 when init failed, when a directory below the agent's
    /// root is somebody else's, or when memory ran out of a hook; else what the run hook returned. Between the
    /// hooks it tells those who wait for the daemon to be up: its starter, when it is in the background, and a
    /// service manager that has set NOTIFY_SOCKET.
    virtual int run() = 0;

    std::function<bool()> init_hook;
    std::function<int()> run_hook;

protected:
    Instance() = default;
};

/// Parses the command line and prepares the signals. --help and --version print and exit with status 0; a
/// wrong command line is a message on standard error and exit status 2.
std::shared_ptr<Instance> instance(int argc, char** argv);

} // namespace orv::daemon
