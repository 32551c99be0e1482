#include "tavrin/sim/controller.hpp"

#include <algorithm>
#include <map>
#include <utility>

#include "client_log.hpp"
#include "model.hpp"
#include "quorl/error.hpp"
#include "quorl/payload.hpp"
#include "quorl/server.hpp"
#include "requests.hpp"
#include "session.hpp"
#include "stravik/part_payload.hpp"
#include "tavrin/sim/simulated_radio.hpp"
#include "tavrin/utils/link.hpp"

namespace zelvo::tavrin::sim {

namespace {

using nlohmann::json;
using state = utils::connection::state;

// The bus's limits on one message and on the bytes held for an incomplete
// one, as the client library sets them.
constexpr unsigned receive_limit = config::max_message;

std::optional<json> parse_body(quorl_server::request_ctx const& request) {
    if (request.format != stravik_part_payload::format::json) {
        return std::nullopt;
    }
    try {
        return stravik_part_payload::from_bytes<json>(request.payload);
    } catch (json::exception const&) {
        return std::nullopt;
    }
}

// Why a bus fault ends the session, or nothing when it does not: after a
// stream fault the bytes can't be trusted, and a refused write means the
// client does not read its replies.
std::optional<std::string> drop_reason(quorl_utils::error const& error,
                                       utils::connection const& connection) {
    using quorl_utils::local_error;
    if (error == local_error::malformed_frame) {
        return "malformed frame";
    }
    if (error == local_error::message_too_large) {
        return "oversized message (over " + std::to_string(receive_limit) + " bytes)";
    }
    if (error == local_error::buffer_overflow) {
        return "oversized message (incomplete frame over " + std::to_string(receive_limit) +
               " bytes)";
    }
    if (error.type() == typeid(quorl_utils::remote_error)) {
        return "the client reported a fault in our stream: " + error.text();
    }
    // A closing connection refuses writes too; that is no fault of the peer.
    if (error == local_error::write_refused && connection.get_state() == state::connected) {
        return "slow reader (its unread replies reached the connection's high-water mark)";
    }
    return std::nullopt;
}

std::string seconds_text(std::chrono::seconds value) {
    return std::to_string(value.count()) + " s";
}

}  // namespace

// Everything of the controller that callbacks reach, held weakly by them.
class controller::core : public std::enable_shared_from_this<core> {
public:
    core(std::shared_ptr<utils::event_loop> loop, std::shared_ptr<sim::radio> radio,
         version_info versions)
        : loop(std::move(loop)),
          radio(std::move(radio)),
          versions(std::move(versions)),
          clients(this->loop),
          resources(this->loop, *this->radio,
                    [this](std::string const& interface, std::string const& name,
                           json const& body) { broadcast(interface, name, body); }) {
        resources.peers().set_log([this](std::string const& line) { clients.note(line); });
    }

    void watch_radio() {
        radio->use_loop(loop);
        status_link = radio->on_status_change(
            [weak = weak_from_this()](std::string const& name, bt_ctrl::state status) {
                if (auto const self = weak.lock()) {
                    self->on_status_change(name, status);
                }
            });
    }

    void serve(std::shared_ptr<utils::connection> const& connection) {
        // Only a live connection that no session serves yet: a second session
        // would take the first one's handlers and leave it bound forever.
        if (!connection || connection->get_state() != state::connected) {
            return;
        }
        for (auto const& [id, served] : sessions) {
            if (served->connection == connection) {
                return;
            }
        }
        if (refusals > 0) {
            --refusals;
            connection->close();
            return;
        }
        if (sessions.size() >= settings.max_sessions) {
            clients.dropped("refused client " + connection->get_name() + ": too many sessions (" +
                            std::to_string(settings.max_sessions) + ")");
            connection->close();
            return;
        }
        auto const id = next_session++;
        auto const served = std::make_shared<session>(id, loop, connection);
        std::weak_ptr<core> const weak = weak_from_this();
        watch(*served);
        for (auto const& [name, handle] : requests::table()) {
            served->server.set_request_handler(
                name, [weak, id, handle = handle](auto const& request, auto const& responder) {
                    if (auto const self = weak.lock()) {
                        self->on_request(id, *request, responder, handle);
                    }
                });
        }
        served->server.set_fallback_handler([weak, id](auto const& request, auto const& responder) {
            if (auto const self = weak.lock()) {
                self->on_request(id, *request, responder, nullptr);
            }
        });
        served->server.set_error_handler([weak, id](auto const& fault) {
            auto const self = weak.lock();
            if (!self) {
                return;
            }
            auto const found = self->sessions.find(id);
            if (found == self->sessions.end()) {
                return;
            }
            if (auto const reason = drop_reason(fault->error, *found->second->connection)) {
                self->drop(id, *reason);
            }
        });
        std::weak_ptr<session> const weak_session = served;
        connection->set_receive_handler(
            [weak, weak_session](std::vector<unsigned char> const& bytes) {
                // The strong copy keeps the server alive through its own dispatch.
                auto const target = weak_session.lock();
                if (!target) {
                    return;
                }
                auto const before = target->server.buffered();
                target->server.receive(bytes, false, receive_limit, receive_limit);
                if (auto const self = weak.lock()) {
                    self->watch_frame(*target, before, bytes.size());
                }
            });
        connection->set_state_handler([weak, id](state now) {
            auto const self = weak.lock();
            if (self && now == state::closed) {
                self->end_session(id);
            }
        });
        sessions.emplace(id, served);
        clients.verbose("accepted client " + std::to_string(id) + " (" + connection->get_name() +
                        ")");
    }

    // The watches that drop a client that does not begin its handshake, or
    // stalls in the middle of a frame.
    void watch(session& served) {
        auto const id = served.id;
        auto const drop_later = [weak = weak_from_this(), id](std::string reason) {
            return [weak, id, reason] {
                if (auto const self = weak.lock()) {
                    self->drop(id, reason);
                }
            };
        };
        served.handshake_watch = loop->create_timer();
        served.handshake_watch->set_handler(drop_later(
            "idle (no handshake within " + seconds_text(settings.handshake_timeout) + ")"));
        served.handshake_watch->start(settings.handshake_timeout);
        served.frame_watch = loop->create_timer();
        served.frame_watch->set_handler(drop_later("idle (in the middle of a frame for " +
                                                   seconds_text(settings.frame_timeout) + ")"));
    }

    // After `received` bytes went in on top of `before` held ones: the frame
    // watch runs from the first byte of each incomplete frame.
    void watch_frame(session& served, std::size_t before, std::size_t received) {
        auto const after = served.server.buffered();
        if (after == 0) {
            served.frame_watch->stop();
            served.frame_watched = false;
        } else if (!served.frame_watched || after != before + received) {
            served.frame_watch->start(settings.frame_timeout);
            served.frame_watched = true;
        }
    }

    // Closes the client's connection; with a reason, says why in the log,
    // once.
    bool drop(unsigned id, std::string const& reason = {}) {
        auto const found = sessions.find(id);
        if (found == sessions.end()) {
            return false;
        }
        auto const& connection = *found->second->connection;
        if (!reason.empty() && connection.get_state() == state::connected) {
            clients.dropped("dropped client " + std::to_string(id) + " (" + connection.get_name() +
                            "): " + reason);
        }
        found->second->connection->close();
        return true;
    }

    // Called from the connection's own state handler, so the session (with
    // the connection and its handlers) is destroyed on a later turn.
    void end_session(unsigned id) {
        auto const found = sessions.find(id);
        if (found == sessions.end()) {
            return;
        }
        auto ended = std::move(found->second);
        sessions.erase(found);
        ended->end();
        resources.end_session(id);
        clients.verbose("closed client " + std::to_string(id) + " (" +
                        ended->connection->get_name() + ")");
        loop->post([ended] {});
    }

    void on_request(unsigned id, quorl_server::request_ctx const& request,
                    quorl_server::responder const& responder, requests::handler handle) {
        auto const found = sessions.find(id);
        if (found == sessions.end()) {
            return;
        }
        auto const target = found->second;
        auto const body = parse_body(request);
        record(id, request, body);
        // The client has begun its handshake, whatever becomes of it.
        if (target->handshake_watch && request.name == "hdshkStart") {
            target->handshake_watch->stop();
            target->handshake_watch.reset();
        }
        if (target->waiting() >= settings.max_waiting_replies) {
            drop(id,
                 "too many waiting replies (" + std::to_string(settings.max_waiting_replies) + ")");
            return;
        }
        if (holding) {
            return target->hold(responder);
        }
        // Events the request causes leave after its reply.
        model::deferral const after_reply(resources);
        session::answer reply = ctrl_error::unsupported_functionality;
        if (auto const code = take_rule(failures, request.name)) {
            reply = *code;
        } else if (handle) {
            auto const result = handle(body, {*radio, versions, target->handshake, resources, id});
            if (auto const* code = std::get_if<ctrl_error>(&result)) {
                reply = *code;
            } else {
                reply = quorl_utils::payload(std::get<json>(result));
            }
        }
        if (take_rule(malformations, request.name)) {
            reply = broken_payload();
        }
        if (take_rule(reply_drops, request.name)) {
            return target->hold(responder);
        }
        auto delay = reply_delay;
        if (auto const longer = take_rule(reply_delays, request.name)) {
            delay = std::max(delay, *longer);
        }
        target->answer_after(responder, reply, delay);
    }

    void record(unsigned id, quorl_server::request_ctx const& request,
                std::optional<json> const& body) {
        if (log_budget == 0) {
            return;
        }
        auto const size = request.name.size() + request.payload.size();
        log.push_back({id, request.name, body, size});
        logged_bytes += size;
        while (logged_bytes > log_budget) {
            logged_bytes -= log.front().size;
            log.pop_front();
        }
    }

    void on_status_change(std::string const& name, bt_ctrl::state status) {
        if (status != bt_ctrl::state::enabled) {
            resources.interface_down(name);
        }
        broadcast(name, "ifStatusChanged", json{{"status", bt_ctrl::to_string(status)}});
    }

    // Sends the event to every session bound to the interface, as the
    // event rules say.
    void broadcast(std::string const& interface, std::string const& name, json const& body) {
        auto const fault = take_rule(event_faults, name);
        if (fault && fault->what == event_fault::kind::drop) {
            return;
        }
        auto const event = fault && fault->what == event_fault::kind::malform
                               ? broken_payload()
                               : quorl_utils::payload(body);
        auto const delay = fault ? fault->delay : std::chrono::seconds(0);
        auto const snapshot = sessions;
        for (auto const& [id, target] : snapshot) {
            auto const& handshake = target->handshake;
            if (handshake.stage == requests::handshake_state::phase::bound &&
                handshake.bound_interface == interface) {
                target->send_event(name, event, delay);
            }
        }
    }

    // The rule for that name, if any; a rule for once is used up.
    template <typename Value>
    static std::optional<Value> take_rule(std::map<std::string, std::pair<Value, repeat>>& rules,
                                          std::string const& name) {
        auto const found = rules.find(name);
        if (found == rules.end()) {
            return std::nullopt;
        }
        auto const value = found->second.first;
        if (found->second.second == repeat::once) {
            rules.erase(found);
        }
        return value;
    }

    static quorl_utils::payload broken_payload() {
        static std::string const broken = "{\"truncated";
        return quorl_utils::payload(std::vector<unsigned char>(broken.begin(), broken.end()),
                                    stravik_part_payload::format::json);
    }

    // Closes every connection and ends every session at once.
    void shut_down() {
        status_link.release();
        auto ended = std::move(sessions);
        sessions.clear();
        for (auto& [id, target] : ended) {
            target->connection->close();
            target->end();
        }
    }

    std::shared_ptr<utils::event_loop> const loop;
    std::shared_ptr<sim::radio> const radio;
    version_info const versions;
    utils::link status_link;
    std::map<unsigned, std::shared_ptr<session>> sessions;
    unsigned next_session = 1;
    limits settings;
    client_log clients;
    model resources;
    std::deque<received_request> log;
    std::size_t log_budget = 0;
    std::size_t logged_bytes = 0;

    unsigned refusals = 0;
    std::map<std::string, std::pair<ctrl_error, repeat>> failures;
    // Values of `true` for the rules that have no other value.
    std::map<std::string, std::pair<bool, repeat>> malformations;
    std::map<std::string, std::pair<bool, repeat>> reply_drops;
    std::map<std::string, std::pair<std::chrono::seconds, repeat>> reply_delays;
    struct event_fault {
        enum class kind { drop, malform, delay };
        kind what;
        std::chrono::seconds delay;
    };
    std::map<std::string, std::pair<event_fault, repeat>> event_faults;
    std::chrono::seconds reply_delay{0};
    bool holding = false;
};

controller::controller(std::shared_ptr<utils::event_loop> loop, std::shared_ptr<sim::radio> radio,
                       version_info versions)
    : self(std::make_shared<core>(std::move(loop), std::move(radio), std::move(versions))) {
    self->watch_radio();
}

controller::controller(std::shared_ptr<utils::event_loop> loop, config const& settings)
    : controller(std::move(loop), std::make_shared<simulated_radio>(settings), settings.versions) {}

controller::~controller() {
    self->shut_down();
}

controller::connection_handler controller::accept_handler() const {
    return [weak = std::weak_ptr<core>(self)](std::shared_ptr<utils::connection> const& accepted) {
        if (auto const target = weak.lock()) {
            target->serve(accepted);
        }
    };
}

void controller::serve(std::shared_ptr<utils::connection> const& connection) {
    self->serve(connection);
}

sim::radio& controller::radio() const {
    return *self->radio;
}

simulated_radio* controller::simulation() const {
    return dynamic_cast<simulated_radio*>(self->radio.get());
}

void controller::set_limits(limits const& settings) {
    self->settings = settings;
    self->resources.set_max_queue(settings.max_queue);
}

controller::limits const& controller::get_limits() const {
    return self->settings;
}

void controller::set_log_handler(log_handler handler, bool verbose) {
    self->clients.set_handler(std::move(handler), verbose);
}

void controller::keep_request_log(std::size_t max_bytes) {
    self->log_budget = max_bytes;
    if (max_bytes == 0) {
        clear_requests();
    }
}

bool controller::peer_read(std::string const& interface, unsigned short connection,
                           unsigned int attribute, unsigned int offset, att_handler done) {
    return self->resources.peers().read(interface, connection, attribute, offset, std::move(done));
}

bool controller::peer_write(std::string const& interface, unsigned short connection,
                            unsigned int attribute, std::vector<unsigned char> const& data,
                            unsigned int offset, bool with_response, att_handler done) {
    return self->resources.peers().write(interface, connection, attribute, data, offset,
                                         with_response, std::move(done));
}

bool controller::peer_subscribe(std::string const& interface, unsigned short connection,
                                unsigned int characteristic, bool indications, att_handler done) {
    return self->resources.peers().subscribe(interface, connection, characteristic, indications,
                                             std::move(done));
}

std::vector<peer_value> controller::peer_values(std::string const& interface,
                                                unsigned short connection) const {
    return self->resources.peers().values(interface, connection);
}

std::vector<unsigned int> controller::find_attributes(std::string const& interface,
                                                      gatt::uuid const& type) const {
    return self->resources.peers().find(interface, type);
}

std::size_t controller::session_count() const {
    return self->sessions.size();
}

std::vector<controller::session_info> controller::sessions() const {
    std::vector<session_info> all;
    for (auto const& [id, target] : self->sessions) {
        bool const bound = target->handshake.stage == requests::handshake_state::phase::bound;
        all.push_back(
            {id, bound ? target->handshake.bound_interface : "", target->handshake.client_id});
    }
    return all;
}

std::deque<controller::received_request> const& controller::requests() const {
    return self->log;
}

void controller::clear_requests() {
    self->log.clear();
    self->logged_bytes = 0;
}

bool controller::set_interface_status(std::string const& name, bt_ctrl::state status) {
    // A local reference: an observer may destroy this controller, and with
    // it the last other reference to the radio, inside the call.
    auto const radio = self->radio;
    return radio->set_status(name, status);
}

void controller::drop_clients() {
    for (auto const& entry : self->sessions) {
        entry.second->connection->close();
    }
}

bool controller::drop_client(unsigned session) {
    return self->drop(session);
}

void controller::refuse_connections(unsigned count) {
    self->refusals = count;
}

void controller::fail_request(std::string const& name, ctrl_error code, repeat how) {
    auto const number = static_cast<int>(code);
    if (number < 2 || number > 46) {
        throw std::invalid_argument("a controller sends codes 2 to 46, not " +
                                    std::to_string(number));
    }
    self->failures[name] = {code, how};
}

void controller::malform_reply(std::string const& name, repeat how) {
    self->malformations[name] = {true, how};
}

void controller::delay_reply(std::string const& name, std::chrono::seconds delay, repeat how) {
    self->reply_delays[name] = {delay, how};
}

void controller::drop_reply(std::string const& name, repeat how) {
    self->reply_drops[name] = {true, how};
}

void controller::drop_event(std::string const& name, repeat how) {
    self->event_faults[name] = {core::event_fault{core::event_fault::kind::drop, {}}, how};
}

void controller::malform_event(std::string const& name, repeat how) {
    self->event_faults[name] = {core::event_fault{core::event_fault::kind::malform, {}}, how};
}

void controller::delay_event(std::string const& name, std::chrono::seconds delay, repeat how) {
    self->event_faults[name] = {core::event_fault{core::event_fault::kind::delay, delay}, how};
}

void controller::clear_failures() {
    self->failures.clear();
    self->malformations.clear();
    self->reply_drops.clear();
    self->reply_delays.clear();
    self->event_faults.clear();
}

void controller::delay_replies(std::chrono::seconds delay) {
    self->reply_delay = delay;
}

void controller::stop_answering(bool stop) {
    self->holding = stop;
    if (!stop) {
        for (auto const& entry : self->sessions) {
            entry.second->release_held();
        }
    }
}

}  // namespace zelvo::tavrin::sim
