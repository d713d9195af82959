#include "support/filesizelimit.h"

#include <algorithm>

FileSizeLimit::FileSizeLimit(rlim_t bytes)
{
    if (::getrlimit(RLIMIT_FSIZE, &m_previous) != 0) {
        return;
    }
    m_previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    if (m_previousHandler == SIG_ERR) {
        return;
    }
    rlimit limited = m_previous;
    limited.rlim_cur =
        m_previous.rlim_max == RLIM_INFINITY ? bytes : std::min(bytes, m_previous.rlim_max);
    m_inForce = ::setrlimit(RLIMIT_FSIZE, &limited) == 0;
    if (!m_inForce) {
        std::signal(SIGXFSZ, m_previousHandler);
    }
}

FileSizeLimit::~FileSizeLimit()
{
    if (!m_inForce) {
        return;
    }
    ::setrlimit(RLIMIT_FSIZE, &m_previous);
    std::signal(SIGXFSZ, m_previousHandler);
}
