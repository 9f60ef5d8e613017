// A file descriptor that is closed when its owner goes away.
#pragma once

#include <unistd.h>

class UniqueFd {
public:
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }

    // Closes now and reports the result, for callers that must know their writes reached the
    // file.
    int Close()
    {
        int ret = close(m_fd);
        m_fd = -1;
        return ret;
    }

private:
    int m_fd;
};
