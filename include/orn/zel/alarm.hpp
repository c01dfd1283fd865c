// SPDX-License-Identifier: MIT
//
// Alarms: a handler called after a delay, once or again and again, on the loop of the group of the thread
// that set it. Public. The clock behind it is the platform's orn::os::Timer, on CLOCK_MONOTONIC.
//
// From examples/03_alarm.cpp:
//
//     orn::zel::SetAlarm(0, [] { std::puts("at once"); });
//     int count = 0;
//     orn::zel::Alarm ticks(10, 10, [&ticks, &count] {
//         std::printf("tick %d\n", ++count);
//         if (count == 3)
//             ticks.Cancel();
//     });
//     while (orn::zel::OutstandingAlarmCount() > 0)
//         orn::zel::RunOnce(-1);
//
// All times are in milliseconds. A delay of 0 is due at once, on the next turn of the loop; an alarm is never
// early; a recurring alarm keeps its phase, and periods that a stalled process missed are skipped.
//
// An alarm belongs to the thread that set it. Any thread of that thread's group may cancel, reset and destroy
// it, one thread at a time; a handler may do so to its own alarm. A thread of another group may do the same,
// but that is rarely meant, and is logged with the ids of both threads.
//
// Cancelling does not wait for an expiry that the loop's thread has already taken up: the handler may start
// just then, or run on for a while, and there is no further call. What the handler refers to must outlive
// that; what it holds by value does.
#ifndef ORN_ZEL_ALARM_HPP
#define ORN_ZEL_ALARM_HPP

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <orn/os/Pipe.hpp>
#include <orn/os/Timer.hpp>
#include <orn/zel/core.hpp>
#include <orn/zel/fd.hpp>

namespace orn::zel {

namespace detail {

class Answer;

} // namespace detail

namespace alarm {

using Handler = boost::function<void()>;
class AlarmImpl;

} // namespace alarm

// One alarm, cancelled when this dies.
class ORN_API Alarm {
public:
    // Armed at once: first after initialMs, then every recurringMs; a period of 0 means once. Throws
    // orn::zel::Exception "NULL handler".
    Alarm(unsigned long initialMs, unsigned long recurringMs, alarm::Handler handler);
    Alarm(unsigned long initialMs, alarm::Handler handler);
    virtual ~Alarm();

    // Makes the alarm due once, timeoutMs from now, even if it was recurring. An expiry that is on its way
    // already counts as that once. Does nothing when the alarm has been cancelled, or was a one-shot and has
    // fired.
    void Reset(unsigned long timeoutMs);
    // Forgets the alarm for good. Expiries that are under way are dropped.
    void Cancel();

    Alarm(Alarm const&) = delete;
    Alarm& operator=(Alarm const&) = delete;

private:
    std::unique_ptr<alarm::AlarmImpl> impl_;
};

// Fire and forget: calls the handler once. Throws orn::zel::Exception "NULL handler".
ORN_API void SetAlarm(unsigned long ms, alarm::Handler handler);

// How many alarms of the calling thread are armed. A one-shot counts until its handler is called. A thread
// that has no alarm manager is given one, and with it two descriptors.
ORN_API unsigned OutstandingAlarmCount();

namespace alarm {

// Writes a line to the descriptor whenever an alarm is made, reset, deleted or due. The thread that does so
// writes it, and waits if the descriptor blocks. There is one such descriptor in the process. It stays the
// caller's, who switches off before closing it. Neither call uses the name, and switching off ignores the
// descriptor.
ORN_API void Monitor(std::string const& name, int fd);
ORN_API void Unmonitor(std::string const& name, int fd);

// ---- The implementation behind the interfaces -----------------------------------------------------------

// What a timer calls in its own context when it expires: writes four bytes into the manager's pipe, and
// neither blocks nor allocates.
ORN_API void process_to_fd(unsigned long id, int fd);

// A new timer, not armed yet; the caller owns it.
ORN_API os::Timer* CreateTimer(boost::function<void(os::Timer*)> callback);

// What a manager keeps of an alarm.
struct TimerBlob {
    TimerBlob(Handler&& called, bool once) : handler(std::move(called)), one_shot(once) {}

    std::optional<os::Timer> timer;
    Handler handler;
    bool one_shot; // to be forgotten after its first expiry
};

// The pipe and the alarms of a manager, and where an alarm is: in a table, which goes when the library is
// unloaded for the next time.
struct Table;
struct Home {
    Table* table = nullptr;
    unsigned unloads = 0;     // how many there had been
    std::uint64_t serial = 0; // which of those that have had the same identifier there; 0: whichever has it
};

// The alarms of one fd manager, and so of one thread. Lives until the library is taken down.
class ORN_API Manager : public basic_ProcessUnique<unsigned long> {
public:
    Manager();
    ~Manager() override;
    Manager(Manager const&) = delete;
    Manager& operator=(Manager const&) = delete;

    id_t AddAlarm(unsigned long initialMs, unsigned long recurringMs, Handler handler);
    void ResetAlarm(id_t id, unsigned long timeoutMs);
    void DeleteAlarm(id_t id);
    // Calls the handlers of all alarms that are due.
    void fd_handler(fd::Event* event);

    unsigned long size() const;
    // Internal to the library, for the word "inspect": an object for each alarm. Any thread.
    ORN_LOCAL void tell(int tid, detail::Answer& answer) const;
    basic_Id<unsigned long> const& id() const { return id_; }

    ORN_LOCAL Table* table() const { return table_.get(); }

private:
    basic_Id<unsigned long> id_;
    boost::shared_ptr<Table> table_; // the handler on the pipe shares it
    boost::shared_ptr<fd::Monitor> monitor_;
    AutoReceptor<fd::Event*> receptor_;
};

// The calling thread's alarm manager, made on first use.
ORN_API boost::shared_ptr<Manager> manager();

class ORN_API AlarmImpl {
public:
    AlarmImpl() : id(0) {}
    virtual ~AlarmImpl();
    void Set(unsigned long initialMs, unsigned long recurringMs, Handler&& handler);
    void Reset(unsigned long timeoutMs);
    void Cancel();

    id_t id; // 0 once cancelled

private:
    Home home_; // the same whichever thread calls
};

// The managers by the id of their fd manager. Null while the subsystem is not loaded. managerMutex guards it.
ORN_API extern std::map<unsigned long, boost::shared_ptr<Manager>>* managerMap;
ORN_API extern ThreadMutex* managerMutex;

ORN_API void zel_alarm_load();
ORN_API void zel_alarm_unload();

} // namespace alarm
} // namespace orn::zel

// alarm(2) in milliseconds, over the process's real-time interval timer and independent of everything above:
// SIGALRM after ms, 0 cancels. Returns the milliseconds that were left of the previous setting, 1 for any
// fraction of one, UINT_MAX for 50 days and more, 0 for none or when the system refuses the time.
ORN_API unsigned msec_alarm(unsigned long ms);

#endif
