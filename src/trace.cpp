// SPDX-License-Identifier: MIT
//
// From the rings of the loops to the clients: lines of spans for those who trace, and a table of times. All
// of it on the command thread, so that no loop and no handler ever waits for a client.
#include "trace.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>

#include <poll.h>

#include <orn/zel/response.hpp>

#include "cmd.hpp"
#include "inspect.hpp"
#include "threadRegistry.hpp"

namespace orn::zel::detail {

std::uint64_t trace_wish_ns = 10000000000U;

namespace {

int const usual_wait_ms = 50;
int const busy_wait_ms = 5; // a loop that does nothing but dispatch fills its ring in a few milliseconds

// A line that is no longer than this is written to a pipe whole or not at all.
std::size_t const longest_line = PIPE_BUF;
// Five numbers and a word, and what goes around the events of a line.
std::size_t const longest_event = 96;
std::size_t const longest_frame = 160;

void append_event(std::string& text, Span const& span) {
    text += text.empty() ? "[" : ",[";
    text += std::to_string(span.begin_ns);
    text += ',';
    text += std::to_string(span.end_ns - span.begin_ns);
    text += ",\"";
    text += name_of(span.doing);
    text += "\",";
    text += std::to_string(span.id);
    text += ',';
    text += std::to_string(span.tid);
    if (span.late_ns != 0) {
        text += ',';
        text += std::to_string(span.late_ns);
    }
    text += ']';
}

bool is_callback(Doing doing) {
    return doing != Doing::turn && doing != Doing::sleep;
}

char const* name_of(Trace::Topic topic) {
    return topic == Trace::Topic::trace ? "trace" : "timing";
}

} // namespace

// ---- Times of callbacks ---------------------------------------------------------------------------------

void TimingTable::add(id_t group, Span const& span) {
    Key const key(span.doing, span.id, group);
    auto const found = by_key_.find(key);
    if (found != by_key_.end()) {
        entries_.splice(entries_.end(), entries_, found->second);
    } else {
        if (entries_.size() == most) {
            by_key_.erase(entries_.front().key);
            entries_.pop_front();
            ++dropped_;
        }
        by_key_[key] = entries_.insert(entries_.end(), Entry{key, 0, 0, 0, 0, {}});
    }
    Entry& entry = entries_.back();
    std::uint64_t const took = span.end_ns - span.begin_ns;
    std::size_t power = 0;
    while (power + 1 < powers && took >> (power + 1) != 0)
        ++power;
    entry.tid = span.tid;
    ++entry.count;
    entry.total_ns += took;
    entry.longest_ns = std::max(entry.longest_ns, took);
    ++entry.histogram[power];
}

void TimingTable::tell(Answer& answer) const {
    for (auto const& item : by_key_) {
        Entry const& entry = *item.second;
        Json& object = answer.begin();
        object.field("group", std::get<2>(entry.key)).field("kind", detail::name_of(std::get<0>(entry.key)));
        object.field("id", std::get<1>(entry.key)).field("thread", entry.tid).field("count", entry.count);
        object.field("total_ns", entry.total_ns).field("longest_ns", entry.longest_ns);
        object.open_list("histogram");
        std::size_t used = powers;
        while (used > 0 && entry.histogram[used - 1] == 0)
            --used;
        for (std::size_t power = 0; power < used; ++power)
            object.item(entry.histogram[power]);
        object.close_list();
        answer.end();
    }
}

std::uint64_t TimingTable::longest_ns(Doing doing, std::uint32_t id) const {
    std::uint64_t longest = 0;
    auto const end = by_key_.upper_bound(Key(doing, id, ~id_t(0)));
    for (auto it = by_key_.lower_bound(Key(doing, id, 0)); it != end; ++it)
        longest = std::max(longest, it->second->longest_ns);
    return longest;
}

// ---- Wishes ---------------------------------------------------------------------------------------------

thread_local Trace* Trace::serving = nullptr;

Trace::Trace() : timing_(std::make_unique<TimingTable>()) {
    serving = this;
}

Trace::~Trace() {
    stop();
    serving = nullptr;
}

Trace::Wish const* Trace::find(Topic topic, int fd) const {
    for (Wish const& wish : wishes_) {
        if (wish.topic == topic && wish.fd == fd)
            return &wish;
    }
    return nullptr;
}

bool Trace::wishes(Topic topic, int fd) const {
    return find(topic, fd) != nullptr;
}

unsigned long Trace::lost(Topic topic, int fd) const {
    unsigned long sum = 0;
    if (Wish const* const known = find(topic, fd)) {
        for (auto const& item : known->lost)
            sum += item.second;
    }
    return sum;
}

bool Trace::wished(Topic topic) const {
    return std::any_of(wishes_.begin(), wishes_.end(),
                       [topic](Wish const& wish) { return wish.topic == topic; });
}

bool Trace::wish(Topic topic, int fd) {
    std::uint64_t const until = internal::now_ns() + trace_wish_ns;
    if (Wish const* const known = find(topic, fd)) {
        wishes_[static_cast<std::size_t>(known - wishes_.data())].until_ns = until;
        return true;
    }
    wishes_.push_back(Wish{topic, fd, until, {}});
    LoopRecord::let_anybody_trace(true);
    if (find_sources())
        return true;
    withdraw(topic, fd);
    return false;
}

void Trace::withdraw(Topic topic, int fd) {
    wishes_.erase(std::remove_if(wishes_.begin(), wishes_.end(),
                                 [&](Wish const& wish) { return wish.topic == topic && wish.fd == fd; }),
                  wishes_.end());
    end_wishes();
}

void Trace::forget(int fd) {
    withdraw(Topic::trace, fd);
    withdraw(Topic::timing, fd);
}

void Trace::end_wishes() {
    std::uint64_t const now = internal::now_ns();
    auto const over = [now](Wish const& wish) {
        pollfd entry = {wish.fd, 0, 0}; // an error without being asked: the pipe has no reader any more
        return now >= wish.until_ns || poll(&entry, 1, 0) != 0;
    };
    wishes_.erase(std::remove_if(wishes_.begin(), wishes_.end(), over), wishes_.end());
    if (!wished(Topic::timing))
        timing_ = std::make_unique<TimingTable>();
    if (wishes_.empty())
        stop();
}

void Trace::stop() {
    for (auto const& item : sources_)
        item.second.record->stop_tracing();
    sources_.clear();
    LoopRecord::let_anybody_trace(false);
    std::vector<Span>().swap(spans_);
    busy_ = false;
}

void Trace::list(Json& object) const {
    for (Wish const& wish : wishes_) {
        object.open().field("monitor", name_of(wish.topic)).field("fd", wish.fd);
        object.field("client", cmd::client_at(wish.fd)).close();
    }
}

// ---- Spans ----------------------------------------------------------------------------------------------

int Trace::wait_ms() const {
    if (wishes_.empty())
        return -1;
    return busy_ ? busy_wait_ms : usual_wait_ms;
}

// The command thread's own group is left out: each line of its trace would make the next one. False when
// there is no memory to trace a group. It is tried again the next time, and the others are traced meanwhile.
bool Trace::find_sources() {
    bool all = true;
    boost::shared_ptr<thread::Group> const own = thread::Registry::group_if_any();
    for (thread::Registry::Entry const& entry : thread::Registry::entries()) {
        if (!entry.group || entry.group == own)
            continue;
        std::shared_ptr<LoopRecord> const& record = entry.group->record();
        id_t const group = entry.group->id().value();
        Source& source = sources_[group];
        if (source.record == record)
            continue;
        try {
            spans_.resize(SpanRing::size);
            source = Source{record, record->trace().lost()};
        } catch (std::bad_alloc const&) {
            sources_.erase(group);
            all = false;
        }
    }
    return all;
}

void Trace::serve() {
    if (wishes_.empty())
        return;
    end_wishes();
    if (wishes_.empty())
        return;
    find_sources();
    busy_ = false;
    for (auto it = sources_.begin(); it != sources_.end();) {
        bool const last = it->second.record.use_count() == 1; // the group has gone, and adds no more
        drain(it->first, it->second);
        if (last)
            forget_group(it->first);
        it = last ? sources_.erase(it) : std::next(it);
    }
}

void Trace::drain(id_t group, Source& source) {
    SpanRing& ring = source.record->trace();
    std::size_t const count = ring.take(spans_.data(), spans_.size());
    busy_ = busy_ || count > SpanRing::size / 4;
    unsigned long const lost = ring.lost() - source.lost;
    source.lost += lost;
    for (Wish& wish : wishes_) {
        if (lost > 0)
            wish.lost[group] += lost;
    }
    if (wished(Topic::timing)) {
        for (std::size_t i = 0; i < count; ++i) {
            if (is_callback(spans_[i].doing))
                timing_->add(group, spans_[i]);
        }
    }
    if (wished(Topic::trace))
        send(group, spans_.data(), count);
}

// What was lost of it counts together with that of others that have gone, or a client that looks for months,
// while groups come and go, would make the process grow.
void Trace::forget_group(id_t group) {
    id_t const gone = 0; // which is no group's
    for (Wish& wish : wishes_) {
        auto const known = wish.lost.find(group);
        if (known == wish.lost.end())
            continue;
        wish.lost[gone] += known->second;
        wish.lost.erase(known);
    }
}

void Trace::send(id_t group, Span const* spans, std::size_t count) {
    std::string events;
    std::size_t in_line = 0;
    for (std::size_t i = 0; i < count; ++i) {
        append_event(events, spans[i]);
        ++in_line;
        if (i + 1 < count && events.size() + longest_event + longest_frame <= longest_line)
            continue;
        for (Wish& wish : wishes_) {
            if (wish.topic == Topic::trace)
                send_line(wish, group, events, in_line);
        }
        give_way();
        events.clear();
        in_line = 0;
    }
}

// The pipe takes the whole line, or the spans in it are lost to this client. The next line says so.
void Trace::send_line(Wish& wish, id_t group, std::string const& events, std::size_t count) {
    auto const known = wish.lost.find(group);
    unsigned long const lost = known == wish.lost.end() ? 0 : known->second;
    std::string const line = "{\"inspect\":\"trace\",\"group\":" + std::to_string(group) +
                             ",\"lost\":" + std::to_string(lost) + ",\"events\":[" + events + "]}\n";
    bool const taken =
        cmd::has_room(wish.fd) && cmd::Write(wish.fd, line) == static_cast<ssize_t>(line.size());
    if (!taken)
        wish.lost[group] = lost + count;
    else if (known != wish.lost.end())
        wish.lost.erase(known);
}

// ---- The words ------------------------------------------------------------------------------------------

namespace {

void tell(Trace::Topic topic, Answer& answer) {
    Trace* const trace = Trace::current();
    int const fd = answer.fd();
    Json& object = answer.begin();
    if (!trace || cmd::client_at(fd) == 0) {
        object.field("error", "only for a client of the command channel");
        answer.end();
        return;
    }
    trace->serve(); // so that the answer is up to date
    unsigned long const lost = trace->lost(topic, fd);
    std::string const& how = answer.arguments();
    if (how == "on" && !trace->wish(topic, fd))
        object.field("error", "not enough memory");
    else if (how == "off")
        trace->withdraw(topic, fd);
    else if (!how.empty() && how != "on")
        object.field("error", "not understood").open_list("known").item("on").item("off").close_list();
    object.field(name_of(topic), trace->wishes(topic, fd) ? "on" : "off");
    if (topic == Trace::Topic::timing)
        object.field("dropped", trace->timing().dropped()).field("lost", lost);
    else if (!trace->wishes(topic, fd))
        object.field("lost", lost); // else the next line tells
    answer.end();
    if (topic == Trace::Topic::timing && how.empty())
        trace->timing().tell(answer);
}

} // namespace

void tell_trace(Answer& answer) {
    tell(Trace::Topic::trace, answer);
}

void tell_timing(Answer& answer) {
    tell(Trace::Topic::timing, answer);
}

std::uint64_t longest_slice_ns(std::uint32_t task) {
    Trace const* const trace = Trace::current();
    return trace ? trace->timing().longest_ns(Doing::task, task) : 0;
}

} // namespace orn::zel::detail
