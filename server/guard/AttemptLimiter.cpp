#include "AttemptLimiter.h"

#include <algorithm>
#include <cmath>

namespace ostv::server {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

AttemptLimiter::AttemptLimiter(Policy policy) : policy_(policy), tokens_(policy.globalPerMinute) {}

std::string AttemptLimiter::sourceKey(const QHostAddress& from) {
    bool isV4 = false;
    const quint32 v4 = from.toIPv4Address(&isV4);
    if (isV4) return QHostAddress(v4).toString().toStdString();
    if (from.protocol() != QAbstractSocket::IPv6Protocol) return from.toString().toStdString();
    Q_IPV6ADDR a = from.toIPv6Address();
    for (int i = 8; i < 16; ++i) a[i] = 0;
    return QHostAddress(a).toString().toStdString() + "/64";
}

void AttemptLimiter::refill(Clock::time_point now) {
    if (!refillStarted_) {
        refillStarted_ = true;
        refilledAt_ = now;
        return;
    }
    if (now <= refilledAt_) return;
    const double minutes = std::chrono::duration<double>(now - refilledAt_).count() / 60.0;
    tokens_ = std::min(policy_.globalPerMinute, tokens_ + minutes * policy_.globalPerMinute);
    refilledAt_ = now;
}

bool AttemptLimiter::logNow(Clock::time_point now, Clock::time_point& last, bool& logged, int& refused,
                            milliseconds interval, Check& c) {
    if (!logged || now - last >= interval) {
        c.log = true;
        c.refusedSinceLog = refused;
        refused = 0;
        last = now;
        logged = true;
    } else {
        ++refused;
    }
    return c.log;
}

AttemptLimiter::Check AttemptLimiter::check(const QHostAddress& from, Clock::time_point now) {
    Check c;
    auto it = entries_.find(sourceKey(from));
    if (it != entries_.end() && it->second.waitUntil > now) {
        c.verdict = Verdict::addressWaiting;
        c.retryAfter = duration_cast<milliseconds>(it->second.waitUntil - now) + milliseconds(1);
        logNow(now, it->second.lastLog, it->second.logged, it->second.refusedSinceLog, policy_.logInterval, c);
        return c;
    }
    refill(now);
    if (tokens_ < 1.0 - 1e-9) {
        c.verdict = Verdict::busy;
        const double perMs = policy_.globalPerMinute / 60000.0;
        c.retryAfter = milliseconds(static_cast<long long>(std::ceil((1.0 - tokens_) / perMs)));
        logNow(now, busyLastLog_, busyLogged_, busyRefused_, policy_.logInterval, c);
    }
    return c;
}

void AttemptLimiter::failed(const QHostAddress& from, Clock::time_point now) {
    refill(now);
    tokens_ = std::max(0.0, tokens_ - 1.0);
    const std::string key = sourceKey(from);
    auto it = entries_.find(key);
    if (it == entries_.end()) {
        if (entries_.size() >= policy_.maxAddresses) prune(now);
        it = entries_.emplace(key, Entry{}).first;
    }
    Entry& e = it->second;
    if (e.failures > 0 && now - e.lastFailure >= policy_.forgetAfter) e.failures = 0;
    ++e.failures;
    e.lastFailure = now;
    if (e.failures >= policy_.freeFailures) {
        const int doublings = std::min(e.failures - policy_.freeFailures, 30);
        const auto wait = std::min<milliseconds>(policy_.maxWait, policy_.firstWait * (1LL << doublings));
        e.waitUntil = now + wait;
    }
}

void AttemptLimiter::succeeded(const QHostAddress& from) { entries_.erase(sourceKey(from)); }

void AttemptLimiter::prune(Clock::time_point now) {
    std::erase_if(entries_, [&](const auto& kv) {
        return kv.second.waitUntil <= now && now - kv.second.lastFailure >= policy_.forgetAfter;
    });
    while (entries_.size() >= policy_.maxAddresses) {
        auto oldest = std::min_element(entries_.begin(), entries_.end(), [](const auto& a, const auto& b) {
            return a.second.lastFailure < b.second.lastFailure;
        });
        entries_.erase(oldest);
    }
}

}  // namespace ostv::server
