#pragma once

#include <sys/resource.h>

#include <csignal>

// Holds the process's file-size limit (RLIMIT_FSIZE) at a number of bytes while it lives,
// with SIGXFSZ ignored, so that a write past the limit is cut short and then fails with
// EFBIG ("File too large") instead of ending the process: a full disk or a quota met half
// way through a trace, on any file system and for root too. Only the soft limit moves, so
// it is put back without privileges. The limit is the process's, so files written by other
// threads meanwhile (the trace writer's) are held to it as well.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes);
    ~FileSizeLimit();
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

    // Whether the limit could be set.
    bool inForce() const { return m_inForce; }

private:
    rlimit m_previous{};
    void (*m_previousHandler)(int) = SIG_DFL;
    bool m_inForce = false;
};
