// A controller played by the test: it answers the handshake and the
// interface status by itself, records every request in order with its
// responder, and answers the others as the test scripts them, at once or
// later by hand. So a test can say exactly what the controller replies, when,
// and which events come between, which the simulator does not let it choose.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "client_fixture.hpp"
#include "quorl/server.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "values/capability_keys.hpp"

namespace zelvo::tavrin::testing {

// Public, so that the cases of a table can stage what they need.
class ScriptedTest : public ClientTest {
public:
    using ClientTest::client;
    using ClientTest::heard;
    using ClientTest::loop;
    using responder = quorl_server::responder;
    using answer = std::function<void(json const& body, responder const&)>;

    struct received {
        std::string name;
        json body;
        std::optional<responder> reply;
    };

    // An answer that replies with `body`.
    static answer with(json const& body) {
        return [body](json const&, responder const& r) { r.reply(quorl_utils::payload(body)); };
    }
    // An answer that refuses with the controller's code.
    static answer refused(int code) {
        return [code](json const&, responder const& r) { r.fail(code); };
    }

    // The "caps" object of an interface that offers everything, its numbers at
    // their protocol values; `changes` overrides keys.
    static json caps(json const& changes = json::object()) {
        auto result = json{{"maxTxPower", 10}, {"maxMtuSize", 23}, {"addrTypes", {"public"}}};
        for (auto const& flag : impl::capability_keys::flags) {
            result[flag.key] = true;
        }
        for (auto const& length : impl::capability_keys::value_lengths) {
            result[length.key] = 512;
        }
        for (auto const& list : impl::capability_keys::phy_lists) {
            result[list.key] = {"1m"};
        }
        result.update(changes);
        return result;
    }

    // Serves the script; "hci0" with `interface_caps` and
    // `interface_address` (none if null) is the only interface, and the status
    // is "enabled". A derived fixture may script more defaults.
    virtual void serve_script() {
        serve_raw([this](quorl_server& server, utils::connection&) {
            ++accepted;
            server.set_fallback_handler([this](auto const& request, responder const& r) {
                auto const& bytes = request->payload;
                auto const body = bytes.empty() ? json() : json::parse(bytes.begin(), bytes.end());
                got.push_back({request->name, body, r});
                auto const found = answers.find(request->name);
                if (found != answers.end()) {
                    found->second(body, r);
                }
            });
        });
        answers["hdshkStart"] = [this](json const&, responder const& r) {
            json description = {{"vendor", "test"}, {"part", "scripted"}, {"caps", interface_caps}};
            if (!interface_address.is_null()) {
                description["addr"] = interface_address;
            }
            r.reply(quorl_utils::payload(json{
                {"version", "1.0.0"}, {"apiVersion", "1.0.0"}, {"ifs", {{"hci0", description}}}}));
        };
        answers["hdshkFinish"] = with({{"if", "hci0"}});
        answers["ifStatusGet"] = with({{"status", "enabled"}});
    }

    // A client with `id` that enables on the scripted controller and runs the
    // loop until nothing is left to do; `mark` is then past every request
    // received so far.
    void start_scripted(client_id const& id = std::nullopt) {
        serve_script();
        make_client(id);
        start("hci0");
        loop->run();
        mark = got.size();
    }

    // Drops the client and its controller and forgets what was received, so
    // that a table's case starts afresh with start_scripted().
    void reset_script() {
        client.reset();
        loop->run();
        listening.release();
        got.clear();
        accepted = 0;
    }

    // The names of the requests received, from the `from`th on.
    strings names(std::size_t from = 0) const {
        strings found;
        for (auto i = from; i < got.size(); ++i) {
            found.push_back(got[i].name);
        }
        return found;
    }

    // The last request of that name; fails the test if there is none.
    received const& last(std::string const& name) const {
        for (auto i = got.size(); i-- > 0;) {
            if (got[i].name == name) {
                return got[i];
            }
        }
        ADD_FAILURE() << "no request " << name;
        static received const none{};
        return none;
    }

    // "<name> <body>" of each request since `mark`.
    strings sent() const {
        strings found;
        for (auto i = mark; i < got.size(); ++i) {
            found.push_back(got[i].name + " " + got[i].body.dump());
        }
        return found;
    }

    // Answers the last request of that name by hand.
    void reply(std::string const& name, json const& body) {
        ASSERT_TRUE(last(name).reply);
        last(name).reply->reply(quorl_utils::payload(body));
    }
    void fail(std::string const& name, int code) {
        ASSERT_TRUE(last(name).reply);
        last(name).reply->fail(code);
    }

    // Sends an event to the client.
    void event(std::string const& name, json const& body) {
        ASSERT_TRUE(raw_server);
        raw_server->send_event(name, quorl_utils::payload(body));
    }

    json interface_caps = caps();
    json interface_address = {{"type", "public"}, {"mac", "02:54:56:00:00:01"}};
    std::map<std::string, answer> answers;
    std::vector<received> got;
    std::size_t mark = 0;
    int accepted = 0;
};

}  // namespace zelvo::tavrin::testing
