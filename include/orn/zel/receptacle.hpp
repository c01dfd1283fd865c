// SPDX-License-Identifier: MIT
//
// Containers of handlers: the interface, the list that may change while it dispatches, the container of one
// handler, and the owner of one registration. Public: signals (signal.hpp) and descriptors (fd.hpp) hand
// these out, and say when and on which thread a handler is called.
//
// From examples/21_receptacle.cpp:
//
//     orn::zel::HandlerList<int> list;
//     orn::zel::AutoReceptor<int> twice(list, [](int value) { std::printf("twice: %d\n", 2 * value); });
//     unsigned long once = 0;
//     once = list.insert([&](int value) {
//         std::printf("once: %d\n", value);
//         list.remove(once); // noted, and done when the dispatch ends
//     });
//     orn::zel::Dispatch(list, 7);
//     orn::zel::Dispatch(list, 8);
//     // A list that any thread may change needs a mutex that its holder can take again.
//     orn::zel::HandlerList<int> shared(boost::make_shared<orn::zel::RecursiveThreadMutex>());
#ifndef ORN_ZEL_RECEPTACLE_HPP
#define ORN_ZEL_RECEPTACLE_HPP

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include <orn/zel/core.hpp>

namespace orn::zel {

// Anything that a handler can be registered with.
template <class dataT, class idT>
class Receptacle {
public:
    using handle_type = idT;
    using receptor_type = boost::function<void(dataT)>;

    virtual ~Receptacle() {}

    // Registers a handler, of which a copy is kept. Returns its handle, or 0 when the receptacle is full.
    virtual handle_type insert(receptor_type const& handler) = 0;
    // Gives a registration up. A handle that is not known is ignored.
    virtual void remove(handle_type handle) = 0;
    virtual unsigned capacity() const = 0;
    virtual unsigned count() const = 0;
};

namespace detail {

// The name that an exception's details give to a data type.
template <class T>
struct TypeName {
    static char const* text() { return "dataT"; }
};
template <>
struct TypeName<int> {
    static char const* text() { return "int"; }
};

// The replay at the end of a dispatch takes the mutex again. A ThreadMutex would make it wait for itself, so
// it gets a recursive one on top; any other mutex is taken as it is.
inline boost::shared_ptr<Mutex> recursive(boost::shared_ptr<Mutex> const& mutex) {
    if (!dynamic_cast<ThreadMutex*>(mutex.get()))
        return mutex;
    return boost::shared_ptr<Mutex>(new RecursiveThreadMutex(*mutex), [mutex](Mutex* made) { delete made; });
}

} // namespace detail

// Owns one registration and gives it up when it dies. Copying and assigning move the registration: they leave
// the source empty, although it is const. The receptacle must outlive the receptor.
template <class dataT>
class AutoReceptor {
public:
    using receptacle_type = Receptacle<dataT, unsigned long>;

    AutoReceptor() : receptacle_(nullptr), handle_(0) {}

    // Takes over a handle that the receptacle's insert() returned; 0 holds nothing.
    AutoReceptor(receptacle_type* receptacle, unsigned long handle)
        : receptacle_(receptacle), handle_(handle) {}

    // Registers the handler; throws what insert() throws.
    AutoReceptor(receptacle_type& receptacle, typename receptacle_type::receptor_type const& handler)
        : receptacle_(&receptacle), handle_(receptacle.insert(handler)) {}

    AutoReceptor(AutoReceptor const& other) : receptacle_(other.receptacle_), handle_(other.handle_) {
        other.handle_ = 0;
    }

    virtual ~AutoReceptor() { release(); }

    // Gives up the registration held so far. Throws orn::Exception "receptacle reassignment" when this one is
    // tied to another receptacle; both are then as before.
    AutoReceptor& operator=(AutoReceptor const& other) {
        if (handle_ == other.handle_)
            return *this;
        if (receptacle_ && receptacle_ != other.receptacle_)
            throw orn::Exception("receptacle reassignment", assignment_signature());
        release();
        handle_ = other.handle_;
        other.handle_ = 0;
        if (!receptacle_)
            receptacle_ = other.receptacle_;
        return *this;
    }

    // The handle held, 0 when none.
    unsigned long handle() const { return handle_; }

private:
    void release() {
        if (handle_ != 0 && receptacle_) {
            // Cleared first, because removing a handler may run its destructor, which may come back here.
            unsigned long const held = handle_;
            handle_ = 0;
            receptacle_->remove(held);
        }
    }

    // Spelled out, so that the text does not depend on the compiler.
    static std::string assignment_signature() {
        return std::string("orn::zel::AutoReceptor<dataT>& orn::zel::AutoReceptor<dataT>::operator=(const "
                           "orn::zel::AutoReceptor<dataT>&) [with dataT = ") +
               detail::TypeName<dataT>::text() + "]";
    }

    receptacle_type* receptacle_;
    mutable unsigned long handle_;
};

// Holds at most one handler.
template <class dataT>
class SingleReceptacle : public Receptacle<dataT, unsigned long> {
public:
    using receptor_type = boost::function<void(dataT)>;

    SingleReceptacle() : id_(0) {}

    // Returns 0, and changes nothing, when there is a handler already.
    unsigned long insert(receptor_type const& handler) override {
        if (id_ != 0)
            return 0;
        handler_ = boost::make_shared<receptor_type>(handler);
        id_ = detail::draw_id();
        return id_;
    }

    void remove(unsigned long id) override { take(id); }

    unsigned capacity() const override { return 1; }
    unsigned count() const override { return id_ != 0 ? 1 : 0; }

    // The handler, shared so that a call of it survives its removal; empty when there is none.
    boost::shared_ptr<receptor_type> handler() const { return handler_; }

    // Removes like remove() and hands the handler out, so that the caller chooses where it is destroyed.
    // Empty when the id is not the one held.
    boost::shared_ptr<receptor_type> take(unsigned long id) {
        boost::shared_ptr<receptor_type> taken;
        if (id != 0 && id == id_) {
            id_ = 0;
            taken.swap(handler_);
        }
        return taken;
    }

private:
    boost::shared_ptr<receptor_type> handler_;
    std::atomic<unsigned long> id_; // read by the group's runner while the owner changes it
};

// Calls the handler with the event, if there is one. The handler may remove itself.
template <class dataT>
void Dispatch(SingleReceptacle<dataT>& receptacle, dataT const& event) {
    boost::shared_ptr<boost::function<void(dataT)>> const held = receptacle.handler();
    if (held && !held->empty())
        (*held)(event);
}

// Any number of handlers, called in the order of their registration. Changes that a handler or another thread
// makes during a dispatch are kept, and replayed in order when the dispatch ends.
//
//     Idle (insert and remove act at once)
//      |  dispatch: lock                       ^
//      v                                       |  unlock: replay
//     Dispatching (insert and remove are kept as operations)
//
// With a mutex, insert(), remove() and count() may be called from any thread. The replay takes the mutex
// again, so give a RecursiveThreadMutex, or a recursive one of your own. A ThreadMutex does as well, unless
// you hold it while you call the list: the list puts a recursive one on top, and only the list can take that
// again. Without a mutex, all calls belong to one thread.
//
// Two threads must not dispatch one list at once. A handler that runs a nested loop may dispatch its own list
// again: the nested dispatch replays what was kept so far, and the outer one goes on with the handlers that
// are still there.
template <class dataT>
class HandlerList : public Receptacle<dataT, unsigned long> {
public:
    using receptor_type = boost::function<void(dataT)>;
    using hook_type = boost::function<void(HandlerList<dataT>*)>;

    // on_first runs when a handler is inserted into a list that has none, before it is stored; on_last when a
    // removal has left none. Both run on the thread that makes the change, on_last possibly at the end of a
    // dispatch and then with the mutex held.
    explicit HandlerList(boost::shared_ptr<Mutex> mutex = boost::shared_ptr<Mutex>(),
                         hook_type const& on_first = hook_type(), hook_type const& on_last = hook_type())
        : dispatching_(false), mutex_(detail::recursive(mutex)), on_first_handler_(on_first),
          on_last_handler_(on_last), id_(detail::draw_id()), name_("handler list " + std::to_string(id_)) {}

    ~HandlerList() override {}

    HandlerList(HandlerList const&) = delete;
    HandlerList& operator=(HandlerList const&) = delete;

    // Throws orn::Exception "Empty handler function". The handle is valid at once, also during a dispatch.
    unsigned long insert(receptor_type const& handler) override {
        if (handler.empty())
            throw orn::Exception("Empty handler function", "");
        unsigned long handle;
        do
            handle = detail::draw_id();
        while (knows(handle));
        return insert_handler(std::pair<const unsigned long, receptor_type>(handle, handler)) ? handle : 0;
    }

    void remove(unsigned long handle) override {
        if (handle != 0)
            remove_handler(handle);
    }

    // The most that the map type can hold; not a limit that anybody sets.
    unsigned capacity() const override {
        typename entries_type::size_type const most = handlers_.max_size();
        return most < ~0U ? static_cast<unsigned>(most) : ~0U;
    }

    // How many there will be once the kept operations are applied.
    unsigned count() const override {
        MutexGuard const guard(*this);
        long total = static_cast<long>(handlers_.size());
        for (std::unique_ptr<list_op> const& op : cached_ops_)
            total += op->tally();
        return total > 0 ? static_cast<unsigned>(total) : 0;
    }

    unsigned long id() const { return id_; }
    std::string const& name() const { return name_; }

    // Calls every handler that is there when it begins, also one that is removed meanwhile. The exception of
    // a handler ends the dispatch and leaves the list in it: changes are then kept until a later dispatch
    // completes.
    void dispatch(dataT data) {
        lock();
        if (!handlers_.empty()) {
            unsigned long const last = handlers_.rbegin()->first;
            auto it = handlers_.begin();
            while (it != handlers_.end() && it->first <= last) {
                unsigned long const handle = it->first;
                // Held, because a nested dispatch of this list may replay the removal of this handler.
                boost::shared_ptr<receptor_type> const held = it->second;
                // The mutex is not held here: the handler may change and dispatch this list.
                if (!held->empty())
                    (*held)(data);
                // A nested dispatch has called unlock(). Nobody but dispatches changes the flag, so that it
                // is read here without the mutex.
                if (!dispatching_)
                    lock();
                it = handlers_.upper_bound(handle);
            }
        }
        unlock();
    }

    // Begin and end a dispatch.
    virtual void lock() {
        MutexGuard const guard(*this);
        dispatching_ = true;
    }

    virtual void unlock() {
        MutexGuard const guard(*this);
        dispatching_ = false;
        apply_cached_ops();
    }

    // The analysis cannot follow a mutex that may be missing.
    virtual void lock_mutex() const ZEL_NO_ANALYSIS {
        if (mutex_)
            mutex_->Lock();
    }

    virtual void unlock_mutex() const ZEL_NO_ANALYSIS {
        if (mutex_)
            mutex_->Unlock();
    }

    virtual bool insert_handler(std::pair<const unsigned long, receptor_type> entry) {
        if (on_first_handler_ && empty())
            on_first_handler_(this); // the mutex is not held: the hook may use this list
        MutexGuard const guard(*this);
        if (dispatching_)
            cached_ops_.push_back(std::make_unique<add_op>(this, entry.first, entry.second));
        else
            handlers_.emplace(entry.first, boost::make_shared<receptor_type>(entry.second));
        return true;
    }

    virtual void remove_handler(id_t handle) {
        boost::shared_ptr<receptor_type> removed; // destroyed last, with the mutex released
        bool emptied = false;
        {
            MutexGuard const guard(*this);
            bool const had_handlers = !handlers_.empty();
            if (dispatching_) {
                cached_ops_.push_back(std::make_unique<remove_op>(this, handle));
            } else {
                auto const it = handlers_.find(handle);
                if (it != handlers_.end()) {
                    removed.swap(it->second);
                    handlers_.erase(it);
                }
            }
            emptied = had_handlers && handlers_.empty();
        }
        if (emptied && on_last_handler_)
            on_last_handler_(this);
    }

    // Replays the kept operations in order and forgets them. The caller holds the mutex, if there is one.
    void apply_cached_ops() {
        // Taken out first, because an operation may run a hook, and the hook may change the list.
        std::vector<std::unique_ptr<list_op>> ops;
        ops.swap(cached_ops_);
        for (std::unique_ptr<list_op> const& op : ops)
            op->apply();
    }

    // A change that waits for the end of a dispatch.
    class list_op {
    public:
        virtual ~list_op() {}
        virtual void apply() = 0;
        virtual int tally() = 0;
    };

    class add_op : public list_op {
    public:
        add_op(HandlerList* list, unsigned long handle, receptor_type const& receptor)
            : list_(list), handle_(handle), receptor_(receptor) {}
        void apply() override {
            list_->insert_handler(std::pair<const unsigned long, receptor_type>(handle_, receptor_));
        }
        int tally() override { return 1; }
        unsigned long handle() const { return handle_; }

    private:
        HandlerList* list_;
        unsigned long handle_;
        receptor_type receptor_;
    };

    class remove_op : public list_op {
    public:
        remove_op(HandlerList* list, unsigned long handle) : list_(list), handle_(handle) {}
        void apply() override { list_->remove_handler(handle_); }
        int tally() override { return -1; }

    private:
        HandlerList* list_;
        unsigned long handle_;
    };

protected:
    // The handlers in dispatch order, shared, without those that wait for the end of a dispatch. The caller
    // sees to it that the list does not change meanwhile.
    std::vector<boost::shared_ptr<receptor_type>> handlers() const {
        std::vector<boost::shared_ptr<receptor_type>> all;
        all.reserve(handlers_.size());
        for (auto const& entry : handlers_)
            all.push_back(entry.second);
        return all;
    }

    // Whether the handle belongs to a handler that is there, or will be at the end of the dispatch. A derived
    // list with a lock of its own overrides this and takes that lock, too.
    virtual bool knows(unsigned long handle) const {
        MutexGuard const guard(*this);
        if (handlers_.count(handle) != 0)
            return true;
        for (std::unique_ptr<list_op> const& op : cached_ops_) {
            // Only an add_op adds.
            if (op->tally() > 0 && static_cast<add_op const&>(*op).handle() == handle)
                return true;
        }
        return false;
    }

private:
    // Shared, so that neither a dispatch nor a removal copies or destroys a running handler.
    using entries_type = std::map<unsigned long, boost::shared_ptr<receptor_type>>;

    // Holds the mutex, if there is one, for a scope, through the virtual pair of functions.
    class MutexGuard {
    public:
        explicit MutexGuard(HandlerList const& list) : list_(list) { list_.lock_mutex(); }
        ~MutexGuard() { list_.unlock_mutex(); }
        MutexGuard(MutexGuard const&) = delete;
        MutexGuard& operator=(MutexGuard const&) = delete;

    private:
        HandlerList const& list_;
    };

    bool empty() const {
        MutexGuard const guard(*this);
        return handlers_.empty();
    }

    entries_type handlers_;
    std::vector<std::unique_ptr<list_op>> cached_ops_;
    bool dispatching_;
    boost::shared_ptr<Mutex> mutex_;
    hook_type on_first_handler_;
    hook_type on_last_handler_;
    unsigned long id_;
    std::string name_;
};

template <class dataT>
void Dispatch(HandlerList<dataT>& list, dataT const& data) {
    list.dispatch(data);
}

} // namespace orn::zel

#endif
