// SPDX-License-Identifier: MIT
//
// The signals that a thread watches. An arrival is written into the pipe of each watching thread in signal
// context; the thread's loop reads it there and calls the handlers. What is installed in the process is in
// signal.cpp.
#include <orn/zel/signal.hpp>

#include <atomic>
#include <cstring>

#include <orn/zel/response.hpp>
#include <orn/zel/threadGroup.hpp>

#include "inspect.hpp"
#include "loopRecord.hpp"
#include "perThread.hpp"
#include "plainText.hpp"
#include "shared.hpp"
#include "signalGate.hpp"
#include "wordPipe.hpp"

namespace orn::zel {
namespace signal {

namespace {

std::map<id_t, boost::shared_ptr<Manager>>* manager_map = nullptr;
detail::PerThread<Manager> managers(manager_map);

// Tells how many handlers there are without the list's mutex, which is held while a removed handler is
// destroyed, and which a handler may take.
class CountedList : public HandlerList<int> {
public:
    CountedList() : HandlerList<int>(detail::make_shared<RecursiveThreadMutex>()), counted_(0) {}

    bool insert_handler(std::pair<const unsigned long, receptor_type> entry) override {
        bool const inserted = HandlerList<int>::insert_handler(entry);
        recount();
        return inserted;
    }
    void remove_handler(id_t handle) override {
        HandlerList<int>::remove_handler(handle);
        recount();
    }

    unsigned counted() const { return counted_; }

private:
    void recount() {
        lock_mutex();
        counted_ = count();
        unlock_mutex();
    }

    std::atomic<unsigned> counted_;
};

// As in "SIGUSR1" and "SIGRTMIN+21".
[[gnu::cold]] std::string name_of(int signo) {
    if (char const* const name = sigabbrev_np(signo))
        return std::string("SIG") + name;
    return "SIGRTMIN+" + std::to_string(signo - SIGRTMIN);
}

} // namespace

// Where signal context leaves word of an arrival, for the loop to find.
struct Manager::Inbox {
    ssize_t put(int signo) {
        if (signo > 0 && signo < NSIG)
            arrivals[signo].note();
        ssize_t const written =
            detail::write_word_in_signal(pipe.WriteFD(), static_cast<std::uint32_t>(signo));
        if (written > 0)
            count.written();
        return written;
    }

    // When it arrived; 0 when nobody traced then.
    std::uint64_t take(int signo) { return arrivals[signo].noted() ? arrivals[signo].take() : 0; }

    os::Pipe pipe{false};
    detail::WordCount count; // of what is in the pipe
    detail::Arrival arrivals[NSIG];
};

// What a manager keeps for a signal that it watches. It shares the source, whose list must outlive the
// registration in it even when an unload has retired the source.
struct Manager::SignalBundle {
    // What signal context calls. It shares the inbox, which must outlive an arrival that is under way.
    struct Arrival {
        void operator()(int signo) const {
            // A child of fork() shares the pipe with its parent, who was not sent this signal.
            if (detail::SignalGate::lineage() == born)
                inbox->put(signo);
        }

        boost::shared_ptr<Inbox> inbox;
        unsigned born;
    };

    SignalBundle(int signo, boost::shared_ptr<Inbox> const& inbox,
                 boost::shared_ptr<CountedList> const& users)
        : source(sigHandler(signo)),
          registration(source->handlers(), Arrival{inbox, detail::SignalGate::lineage()}), list(users),
          arrivals(0) {}

    boost::shared_ptr<SignalHandler> source;
    orn::zel::AutoReceptor<int> registration;
    boost::shared_ptr<CountedList> list;
    unsigned long arrivals; // that the loop has read from the pipe
};

struct Manager::Watch {
    // The handlers of the signal. With rearm, a bundle whose source an unload has retired is made anew.
    [[gnu::cold]] boost::shared_ptr<HandlerList<int>> list(int signo, boost::shared_ptr<Inbox> const& inbox,
                                                           bool rearm);
    void drain(fd::Event* event, boost::shared_ptr<Inbox> const& inbox);
    std::vector<int> signals();
    void tell(int tid, detail::Answer& answer);

private:
    boost::shared_ptr<HandlerList<int>> arrived(int signo);

    // The thread that watches and the one that runs the loop may be two. A bundle is made under the lock: a
    // thread that came second would otherwise replace a list that has handlers by an empty one, or have each
    // arrival written twice. Nobody comes for this lock with another one held.
    ThreadMutex lock_;
    std::map<int, SignalBundle> bundles_ ZEL_GUARDED_BY(lock_);
};

boost::shared_ptr<HandlerList<int>> Manager::Watch::list(int signo, boost::shared_ptr<Inbox> const& inbox,
                                                         bool rearm) {
    std::map<int, SignalBundle>::node_type replaced; // outlives the lock, since it withdraws its registration
    boost::shared_ptr<CountedList> users;
    {
        AutoLock const guard(lock_);
        auto const found = bundles_.find(signo);
        if (found != bundles_.end()) {
            users = found->second.list;
            if (!rearm || found->second.source->impl().installed())
                return users;
        } else {
            users = detail::make_shared<CountedList>();
        }
        SignalBundle fresh(signo, inbox, users);
        if (found != bundles_.end())
            fresh.arrivals = found->second.arrivals;
        replaced = bundles_.extract(signo);
        bundles_.emplace(signo, fresh);
    }
    // The lock must not be held here: what a retired function holds may call back when it is destroyed.
    detail::SignalGate::reclaim();
    return users;
}

// The handlers of a signal that has come through the pipe; empty when it was not watched in this process.
boost::shared_ptr<HandlerList<int>> Manager::Watch::arrived(int signo) {
    AutoLock const guard(lock_);
    auto const found = bundles_.find(signo);
    if (found == bundles_.end())
        return boost::shared_ptr<HandlerList<int>>();
    ++found->second.arrivals;
    return found->second.list;
}

void Manager::Watch::drain(fd::Event* event, boost::shared_ptr<Inbox> const& inbox) {
    detail::QueuedWords queued(*event, &inbox->count);
    detail::LoopRecord& record = detail::LoopRecord::current();
    std::uint32_t word;
    while (queued.next(word)) {
        int const signo = static_cast<int>(word);
        boost::shared_ptr<HandlerList<int>> users = arrived(signo);
        if (!users)
            users = list(signo, inbox, false); // throws for a number that is no signal's
        // No lock may be held here: the handlers may change this list, and run a nested loop.
        detail::LoopRecord::Callback<detail::Doing::signal> callback(record);
        callback.next(word, inbox->take(signo));
        Dispatch(*users, signo);
    }
}

[[gnu::cold]] std::vector<int> Manager::Watch::signals() {
    std::vector<int> numbers;
    AutoLock const guard(lock_);
    for (auto const& item : bundles_)
        numbers.push_back(item.first);
    return numbers;
}

[[gnu::cold]] void Manager::Watch::tell(int tid, detail::Answer& answer) {
    struct Watched {
        int signo;
        unsigned handlers;
        unsigned long arrivals;
    };
    std::vector<Watched> all;
    {
        AutoLock const guard(lock_);
        for (auto const& item : bundles_)
            all.push_back(Watched{item.first, item.second.list->counted(), item.second.arrivals});
    }
    for (Watched const& each : all) {
        detail::Json& object = answer.begin();
        object.field("signal", each.signo).field("name", name_of(each.signo)).field("thread", tid);
        object.field("handlers", each.handlers).field("arrivals", each.arrivals);
        answer.end();
    }
}

[[gnu::cold]] Manager::Manager()
    : id_(detail::draw_id()), inbox_(detail::make_shared<Inbox>()), watch_(detail::make_shared<Watch>()),
      receptor_(inbox_->pipe.ReadFD(),
                [watch = watch_, inbox = inbox_](fd::Event* event) { watch->drain(event, inbox); }) {}

Manager::~Manager() = default;

[[gnu::cold]] boost::shared_ptr<Receptacle<int, unsigned long>> Manager::monitor(int signo) {
    return watch_->list(signo, inbox_, true);
}

ssize_t Manager::signal_handler(int signo) {
    return inbox_->put(signo);
}

void Manager::fd_handler(fd::Event* event) {
    watch_->drain(event, inbox_);
}

int Manager::signal_fd() const {
    return inbox_->pipe.ReadFD();
}

void Manager::tell(int tid, detail::Answer& answer) const {
    watch_->tell(tid, answer);
}

[[gnu::cold]] std::vector<int> Manager::signals() const {
    return watch_->signals();
}

boost::shared_ptr<Manager> manager() {
    return managers.get();
}

[[gnu::cold]] AutoReceptor::AutoReceptor(int signo, boost::function<void(int)> handler)
    : list_(Signal(signo)), receptor_(*list_, handler) {}

AutoReceptor::~AutoReceptor() = default;

[[gnu::cold]] void ListSignals(std::string const&, int fd) {
    detail::PlainText text = detail::PlainText::of_this_thread();
    text << "SignalMgrs:\n";
    for (auto const& item : managers.all()) {
        text << '[' << item.second->id() << "] fdMgr=" << item.first
             << " signal_fd=" << item.second->signal_fd();
    }
    text << " signals={ ";
    for (int const signo : manager()->signals())
        text << signo << ' ';
    text << '}';
    cmd::Write(fd, text.str());
}

[[gnu::cold]] void tell_signals(detail::Answer& answer) {
    managers.each([&](Manager& manager, int tid) { manager.tell(tid, answer); });
}

[[gnu::cold]] void release_managers() {
    managers.unload();
}

} // namespace signal

[[gnu::cold]] boost::shared_ptr<Receptacle<int, unsigned long>> Signal(int signo) {
    return signal::manager()->monitor(signo);
}

} // namespace orn::zel
