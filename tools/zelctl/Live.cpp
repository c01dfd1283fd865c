// SPDX-License-Identifier: MIT
//
// Wishes and names.
#include "Live.hpp"

#include "Failure.hpp"
#include "Target.hpp"
#include "Views.hpp"

namespace zelctl {

std::uint64_t number_in(Json const& object, char const* key) {
    auto const found = object.find(key);
    return found != object.end() && found->is_number_unsigned() ? found->get<std::uint64_t>() : 0;
}

std::string text_in(Json const& object, char const* key) {
    auto const found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

// ---- Wishes ---------------------------------------------------------------------------------------------

Wish::Wish(Session& session, std::string const& topic, Session::Sink const& sink)
    : session_(session), topic_(topic), sink_(sink) {
    bool on = false;
    std::string why = "its zel does not have inspect " + topic;
    std::string const command = "inspect " + topic + " on";
    session.ask(command, [&](std::string const& line) {
        Json const object = object_in(line);
        on = on || text_in(object, topic.c_str()) == "on";
        if (object.contains("error") && object.contains(topic)) // which an older library's refusal lacks
            why = cell(object["error"]);
        if (sink)
            sink(line);
    });
    if (!on)
        throw Failure(refused, session.target().name() + " cannot tell: " + why);
    session.follow(sink);
    unsigned long const renewal_ms = 3000;
    renewal_.reset(new orn::zel::Alarm(renewal_ms, renewal_ms, [this, command] { session_.tell(command); }));
}

Wish::~Wish() {
    session_.follow(nullptr);
    if (!over_)
        session_.tell("inspect " + topic_ + " off"); // served although nobody waits for the answer
}

void Wish::end() {
    renewal_.reset();
    session_.ask("inspect " + topic_ + " off", [this](std::string const& line) {
        if (sink_)
            sink_(line);
    });
    over_ = true;
}

// ---- Names ----------------------------------------------------------------------------------------------

void Names::learn(Session& session) {
    struct {
        char const* view;
        char const* id;
        char const* name;
        char const* kind;
    } const sources[] = {{"fds", "fd", "path", "fd"},
                         {"signals", "signal", "name", "signal"},
                         {"tasks", "task", "name", "task"},
                         {"threads", "tid", "name", "thread"}};
    for (auto const& source : sources) {
        std::optional<View> const view = inspect(session, source.view);
        for (Json const& object : view ? view->objects : std::vector<Json>()) {
            std::string const name = text_in(object, source.name);
            if (!name.empty())
                names_[{source.kind, number_in(object, source.id)}] = name;
        }
    }
}

std::string Names::name(std::string const& kind, std::uint64_t id) const {
    for (ByKind const* const names : {&names_, &older_}) {
        auto const found = names->find({kind, id});
        if (found != names->end())
            return found->second;
    }
    return "";
}

std::string Names::call(std::string const& kind, std::uint64_t id) const {
    std::string const known = name(kind, id);
    return kind + ' ' + std::to_string(id) + (known.empty() ? "" : ' ' + known);
}

} // namespace zelctl
