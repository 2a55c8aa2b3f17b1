#pragma once

#include <orvutils/error.h>
#include <orvutils/path.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// The settings store: a tree of keys named by paths ("/registration/device_id"), shared by all processes of
/// the agent. Every node may have a value and children. Keys below /tmp do not survive a reboot; for all
/// others, a returned setKey() is on disk. Keys are at most 511 bytes, values at most 1 MiB.
///
/// Failures are negative numbers: the negated error number (orv::Error), which orv::_get_orverrno() also
/// gives. Not thread-safe.
///
/// Nothing waits for another process longer than a second, whatever state that process is in: opening and
/// writing then fail with error 3. Reading never waits.
namespace orv::setMgmt {

constexpr std::size_t kMaxKeySize = 511;
constexpr std::size_t kMaxValueSize = std::size_t{1024} * 1024;

/// Opens the store, creating it when it is not there. 0, or below 0.
[[nodiscard]] int init();
/// Closes it. Key locks held and keys monitored stay as they are.
void uninit();

/// Reads a key's value; returns its length, 0 for an empty one. On failure `value` is untouched; a key that
/// is not there is error 4, one that has only children error 5.
[[nodiscard]] int getKey(const std::string& key, std::string& value);

/// A key's value as a decimal integer; `fallback` when it cannot be read or is no such number. A key without a
/// value is error 4 here, and below, whether or not it has children: that is not looked for.
[[nodiscard]] int getKeyValue(const std::string& key, int fallback);
/// A key's value; `fallback` when it cannot be read.
[[nodiscard]] std::string getKeyValue(const std::string& key, const std::string& fallback);

/// Writes a key. 0, or below 0: then nothing has changed. A value that is there already tells whoever watches
/// the key, and costs no durable commit.
[[nodiscard]] int setKey(const std::string& key, const std::string& value);

/// Removes a key with everything below it, all or nothing. 0, or below 0 (error 4 when there is nothing).
[[nodiscard]] int deleteKey(const std::string& key);

/// Fills in the names of a key's children, in lexical order. Returns their number (0 for a key that is not
/// there), or below 0.
[[nodiscard]] int enumSubkeys(const std::string& key, std::vector<std::string>& names);

/// Writes that belong together: one durable commit for all of them. From its making to its commit or its end,
/// what setKey() and deleteKey() do in this process goes into it, and getKey() and enumSubkeys() see it;
/// nobody else does, and other processes cannot write. Each call succeeds or fails as it would alone, and one
/// that fails leaves the batch as it was before (but for an input/output error, and for a store that could not
/// be written when it was first to be, after which nothing more of the batch is written to that store).
///
/// A batch in another one belongs to that one. The end of the store is that of its batch.
class Batch {
public:
    Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;
    /// Without a commit, nothing has changed.
    ~Batch();

    /// 0, or below 0: then nothing has changed (of the keys below /tmp, which come second, perhaps only they
    /// have not). The batch is over in any case.
    [[nodiscard]] int commit();
};

/// Takes the lock named by a key (which need not exist) against other processes, waiting at most one second
/// (then error 3), and not again for one that was waited for in vain until it could be had. Within this
/// process locks are counted. The lock falls with its holder.
[[nodiscard]] int lockKey(const std::string& key);
/// Gives one lockKey() back. Error 1 when this process does not hold the lock.
[[nodiscard]] int unlockKey(const std::string& key);

/// Watches one key. Its descriptor becomes readable after any process has committed a change to the key, a
/// write of the same value included; several changes may arrive as one notice, none is missed.
///
/// All watches of a process share one descriptor (inotify); reading it through any of them serves all.
class MonitoredKey {
public:
    /// Tells of a change of `key`; `user` is the constructor's. False cancels the watch.
    using Callback = std::function<bool(const path& key, void* user)>;

    /// With `notify_now` the first reading calls the callback even when nothing has changed. With `keep`, the
    /// watch lives on after the store has been closed and opened again. Opens the log channel
    /// kORVSetMgmtChannel, and logs when it cannot.
    MonitoredKey(const char* key, Callback callback, bool notify_now, void* user, bool keep);
    MonitoredKey(const MonitoredKey&) = delete;
    MonitoredKey& operator=(const MonitoredKey&) = delete;
    ~MonitoredKey();

    /// The descriptor to watch for input, or below 0 when the watch could not be set up or was cancelled. To
    /// be fetched anew for each wait, and at least once a second: only this notices that the store itself was
    /// replaced, or is there again, and then makes the descriptor readable. In a daemon it also renews the
    /// copy of the settings that takes their place when they are damaged, whatever key is watched.
    [[nodiscard]] int get_fd() const;

    /// Consumes what is pending and calls the callback of every key that has changed. Never blocks.
    void read_notifications();

    /// Ends the watch; the callback is not called any more.
    void cancel();

private:
    class Watch;
    std::unique_ptr<Watch> m_watch;
};

} // namespace orv::setMgmt
