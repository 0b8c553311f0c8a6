#pragma once
#include <string_view>

namespace ostv {

// The diagnostic log: one line per event on standard output, a bracketed tag, one space, the text.
// Whole lines are written with a single write, so two threads logging at once never interleave.
class Logger {
public:
    static void info(std::string_view text);        // "[Info] "
    static void error(std::string_view text);       // "[Error] "
    static void connection(std::string_view text);  // "[Connection] "
    static void tls(std::string_view text);         // "[TLS] "
    static void session(std::string_view text);     // "[SESSION] "
    static void env(std::string_view text);         // "[ENV] "
    static void login(std::string_view text);       // "[LOGIN] "
    static void ptySetup(std::string_view text);    // "[PTY_SETUP] "

    // Writes tag + text + '\n' in one go, line breaks in the text written as "\n" and "\r". Tags carry
    // their trailing space ("[Info] ").
    static void write(std::string_view tag, std::string_view text);
};

}  // namespace ostv
