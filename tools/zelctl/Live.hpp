// SPDX-License-Identifier: MIT
//
// What top and trace share: spans that a process records for as long as somebody wishes, and names for what
// it calls. Internal to the tool.
#ifndef ZELCTL_LIVE_HPP
#define ZELCTL_LIVE_HPP

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <orn/clock.hpp>

#include "Session.hpp"
#include "Table.hpp"

namespace zelctl {

// A member of an object from another process: 0 or "" when it is missing or of another type.
std::uint64_t number_in(Json const& object, char const* key);
std::string text_in(Json const& object, char const* key);

using orn::internal::now_ns; // processes share this clock

// The wish for "trace" or "timing". The process forgets it after ten seconds, so it is renewed while this
// lives, and withdrawn at the end.
class Wish {
public:
    // The sink gets all lines that come from now on. Throws Failure when the process does not have the topic.
    Wish(Session& session, std::string const& topic, Session::Sink const& sink);
    ~Wish();
    Wish(Wish const&) = delete;
    Wish& operator=(Wish const&) = delete;

    // Withdraws it, and returns when the sink has had the last line.
    void end();

private:
    Session& session_;
    std::string const topic_;
    Session::Sink const sink_;
    bool over_ = false;
    std::unique_ptr<orn::zel::Alarm> renewal_;
};

// What has an identifier in a process is named as the process names it.
class Names {
public:
    // Asks for the names. Those of what has gone meanwhile are kept, until forget_older() has been called
    // twice.
    void learn(Session& session);
    void forget_older() { older_ = std::exchange(names_, {}); }

    // kind: fd, alarm, signal, task or thread. "" if it has none.
    std::string name(std::string const& kind, std::uint64_t id) const;
    // "task 17 hash", for example.
    std::string call(std::string const& kind, std::uint64_t id) const;

private:
    using ByKind = std::map<std::pair<std::string, std::uint64_t>, std::string>;

    ByKind names_;
    ByKind older_;
};

} // namespace zelctl

#endif
