// SPDX-License-Identifier: MIT
//
// One conversation of zelctl with a process: attaching, commands and where their answers end, waiting.
// Internal to the tool. What the commands are is left to Verbs, monitors are Monitors'.
//
// Everything that a session waits for is an event of one loop: answers, the end of the process, the time
// limit. Only signals are a flag, because they may come while a slow reader holds up the output.
#ifndef ZELCTL_SESSION_HPP
#define ZELCTL_SESSION_HPP

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <orn/zel.hpp>

#include "Channel.hpp"

namespace zelctl {

class Output;
class Target;

// The words of a command, read as the process reads it.
std::vector<std::string> words_of(std::string const& command);

// What is worth knowing about an answer besides its lines.
struct Answer {
    unsigned long lines = 0;
    std::string first; // line
    std::string last;
    bool lost = false;   // some of its lines may not have come
    bool echoed = false; // the process has only sent the command back: nobody there has its word
};

class Session {
public:
    using Sink = std::function<void(std::string const& line)>;

    // seconds: how long connecting, and then each answer, may take.
    Session(Target const& target, Output& output, double seconds);
    ~Session();
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    // These throw Failure, also when the seconds are over, and Interrupted once a signal has come.

    void connect();

    // Sends the command, and returns when the sink has had the whole answer.
    Answer ask(std::string const& command, Sink const& sink);
    // The same for several that are sent together, without waiting in between.
    Answer ask(std::vector<std::string> const& commands, Sink const& sink);

    // Sends a command for whose answer nobody waits, even if the process has gone.
    void tell(std::string const& command);

    // While one lives, the process has the seconds for all that is asked together.
    class Limit {
    public:
        explicit Limit(Session& session);
        ~Limit();
        Limit(Limit const&) = delete;
        Limit& operator=(Limit const&) = delete;

    private:
        Session& session_;
    };

    // One turn of the loop, which ends after that time at the latest.
    void turn(long ms = -1);
    // The same while lines go on coming: what the reader of the output does not take is kept, because a slow
    // one must not keep the loop from the end of the process.
    void follow_turn(long ms = -1);
    void pause(unsigned long ms);
    // Takes what the process has written before it ended.
    void drain();

    // Where lines go that come while nobody asks. Nowhere, unless this has been called.
    void follow(Sink const& sink) { stream_ = sink; }

    // The process has ended, or takes no more commands.
    bool ended() const { return ended_ || (channel_.connected() && channel_.closed()); }
    bool lost_since(unsigned long overflows) const { return channel_.overflows() != overflows; }
    unsigned long overflows() const { return channel_.overflows(); }
    // Adds to what is said when the time is over.
    void explain_silence(std::string const& reason) { reason_ = reason; }

    Target const& target() const { return target_; }
    Output& output() const { return output_; }

    // Throws when the time is over, or when a signal asks for the end.
    void check();

private:
    std::string silence() const;
    void send(std::string const& command);
    void wait_for_answer();
    void expect_echo(std::string const& command);
    void take_line(std::string const& line);

    Target const& target_;
    Output& output_;
    double const seconds_;

    // A second command, the mark, is sent after each command. Where the mark's echo comes the answer has
    // ended.
    std::string const mark_; // what every mark begins with
    unsigned long marks_ = 0;
    std::string end_;                   // the echo of the latest mark
    bool complete_ = true;              // that echo has come
    bool stale_ = false;                // what comes belongs to an answer that nobody waits for any more
    std::string begin_;                 // the last line of the echo that begins the answer
    bool begun_ = false;                // what came before it answers what was told, or is of a monitor
    std::multiset<std::string> echoes_; // lines, of commands, still to come; they are no part of answers
    Sink sink_;
    Sink stream_;

    bool ended_ = false;
    bool noted_ = false;     // that it takes long
    bool timed_out_ = false; // the seconds are over
    unsigned limits_ = 0;    // that live
    int send_error_ = 0;     // errno of the last attempt
    std::string reason_;
    Channel channel_;
    std::unique_ptr<orn::zel::fd::AutoReceptor> end_receptor_;
    std::unique_ptr<orn::zel::Alarm> note_;
    std::unique_ptr<orn::zel::Alarm> limit_;
    std::unique_ptr<orn::zel::Alarm> tick_;
};

} // namespace zelctl

#endif
