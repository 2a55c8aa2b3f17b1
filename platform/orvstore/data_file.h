#pragma once

#include <orvbase/descriptor.h>
#include <orvstore/failure.h>
#include <orvstore/layout.h>

#include <string>

namespace orv::store {

/// The data file of one store, before LMDB maps it. To be used with the directory locked.
class DataFile {
public:
    DataFile(const std::string& directory, const Layout& layout, Failure& failure);

    /// Opens it, if it is there, and finds out whether other processes have it open.
    [[nodiscard]] bool find();
    [[nodiscard]] bool is_in_use() const { return m_is_in_use; }

    /// Makes sure that LMDB can trust what is in it, or that there is nothing. What other processes have open
    /// was looked at by the first of them.
    [[nodiscard]] bool prepare();
    /// Of a file that others have open: makes sure that they are programs of this kind.
    [[nodiscard]] bool recognise();
    /// Whether there is no store in it yet.
    [[nodiscard]] bool is_new() const { return m_is_new; }

    /// LMDB does not want it. Sets it aside, if nobody would miss it; then it is new.
    [[nodiscard]] bool give_up(const char* reason);

    /// To be kept as long as the store is open: others see by it that it is.
    [[nodiscard]] base::Descriptor mark_use();

private:
    [[nodiscard]] bool fail(Failure::Kind kind, const char* doing, const char* reason);
    [[nodiscard]] bool fail(const char* doing, int code);
    void report(Severity severity, const std::string& text) const;
    [[nodiscard]] bool forget_last_boot();
    [[nodiscard]] bool refuse(const char* origin);
    [[nodiscard]] bool mend(const char* reason);
    [[nodiscard]] bool set_aside(const char* reason);
    [[nodiscard]] bool restore(const char* reason);

    const std::string& m_directory;
    const std::string m_name;
    const Layout& m_layout;
    Failure& m_failure;
    base::Descriptor m_file;
    bool m_is_in_use = false;
    bool m_is_new = false;
};

} // namespace orv::store
