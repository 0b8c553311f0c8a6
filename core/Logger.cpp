#include "Logger.h"

#include <string>
#include <unistd.h>

namespace ostv {

void Logger::write(std::string_view tag, std::string_view text) {
    std::string line;
    line.reserve(tag.size() + text.size() + 1);
    line.append(tag);
    // One event, one line: a line break in the text (a nickname or code a peer sent, say) is written
    // as an escape, so that nobody can add lines of their own to the log.
    for (char c : text) {
        if (c == '\n')
            line.append("\\n");
        else if (c == '\r')
            line.append("\\r");
        else
            line.push_back(c);
    }
    line.push_back('\n');
    // One write(2) per line: POSIX keeps a single write to a pipe or file whole up to PIPE_BUF and in
    // practice for regular files and terminals too; loop only on a short write.
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(STDOUT_FILENO, p, left);
        if (n <= 0) return;  // nowhere to log to; never fail the caller
        p += n;
        left -= static_cast<size_t>(n);
    }
}

void Logger::info(std::string_view t) { write("[Info] ", t); }
void Logger::error(std::string_view t) { write("[Error] ", t); }
void Logger::connection(std::string_view t) { write("[Connection] ", t); }
void Logger::tls(std::string_view t) { write("[TLS] ", t); }
void Logger::session(std::string_view t) { write("[SESSION] ", t); }
void Logger::env(std::string_view t) { write("[ENV] ", t); }
void Logger::login(std::string_view t) { write("[LOGIN] ", t); }
void Logger::ptySetup(std::string_view t) { write("[PTY_SETUP] ", t); }

}  // namespace ostv
