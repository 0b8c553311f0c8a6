#pragma once
// Limits failed attempts (sign-ins, pairing codes) per source address and over all addresses.
//
// Per address: the first `freeFailures` failures cost nothing; every further one makes the address
// wait before its next attempt, `firstWait` doubling with each failure up to `maxWait`. An address
// that has not failed for `forgetAfter` starts afresh, and a success clears it. IPv6 addresses count
// by their /64 network (one host easily holds a whole one).
//
// Over all addresses: failures draw on a bucket of `globalPerMinute` that refills at that rate; while
// it is empty every new attempt is refused ("busy"), so no number of addresses guesses faster.
//
// A refusal says whether it should be logged: the first one of an address (or of the busy state) in
// each `logInterval`, with the number refused since the last logged one.
#include <QHostAddress>
#include <chrono>
#include <string>
#include <unordered_map>

namespace ostv::server {

class AttemptLimiter {
public:
    using Clock = std::chrono::steady_clock;
    struct Policy {
        int freeFailures = 5;
        std::chrono::milliseconds firstWait{1000};
        std::chrono::milliseconds maxWait{15 * 60 * 1000};
        std::chrono::milliseconds forgetAfter{60 * 60 * 1000};
        double globalPerMinute = 20;
        std::chrono::milliseconds logInterval{60 * 1000};
        size_t maxAddresses = 10000;  // the table's bound; the stalest entries go first
    };
    enum class Verdict { allowed, addressWaiting, busy };
    struct Check {
        Verdict verdict = Verdict::allowed;
        std::chrono::milliseconds retryAfter{0};
        bool log = false;          // log this refusal (first of its interval)
        int refusedSinceLog = 0;   // refusals not logged before this one
        explicit operator bool() const { return verdict == Verdict::allowed; }
    };

    AttemptLimiter() : AttemptLimiter(Policy{}) {}
    explicit AttemptLimiter(Policy policy);

    // Before an attempt: may it go ahead?
    Check check(const QHostAddress& from, Clock::time_point now = Clock::now());
    void failed(const QHostAddress& from, Clock::time_point now = Clock::now());
    void succeeded(const QHostAddress& from);

    const Policy& policy() const { return policy_; }
    // The fastest rate of failures the limiter lets through (per minute), whatever the addresses.
    double worstCaseFailuresPerMinute() const { return policy_.globalPerMinute; }

    // "192.0.2.7" or "2001:db8:1:2::/64": what failures are counted against.
    static std::string sourceKey(const QHostAddress& from);

private:
    struct Entry {
        int failures = 0;
        Clock::time_point lastFailure{};
        Clock::time_point waitUntil{};
        Clock::time_point lastLog{};
        bool logged = false;
        int refusedSinceLog = 0;
    };
    void refill(Clock::time_point now);
    void prune(Clock::time_point now);
    static bool logNow(Clock::time_point now, Clock::time_point& last, bool& logged, int& refused,
                       std::chrono::milliseconds interval, Check& c);

    Policy policy_;
    std::unordered_map<std::string, Entry> entries_;
    double tokens_;
    Clock::time_point refilledAt_{};
    bool refillStarted_ = false;
    Clock::time_point busyLastLog_{};
    bool busyLogged_ = false;
    int busyRefused_ = 0;
};

}  // namespace ostv::server
