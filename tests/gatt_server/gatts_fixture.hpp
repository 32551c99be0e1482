// The fixture of the GATT server tests: a client enabled on the scripted
// controller, which keeps a database and answers the walk's requests from it,
// at once or, while `holding`, only when the test says, in any order.
//
// A tree is written as "S<handle>(<uuid>[,off])[{...}]" for a service,
// "C<handle>(<uuid>;<properties>;<permissions>)[{...}]" for a characteristic
// and "D<handle>(<uuid>;<permissions>)" for a descriptor, children by handle.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "../client/scripted_fixture.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/descriptor.hpp"
#include "tavrin/gatt/profile.hpp"
#include "tavrin/gatt/service.hpp"

namespace zelvo::tavrin::testing {

class GattsTest : public ScriptedTest {
public:
    void serve_script() override {
        ScriptedTest::serve_script();
        answers["ifAddrGet"] = with({{"addr", interface_address}});
        answers["advsGet"] = with({{"maxAdvertisers", 4}, {"advertisers", json::object()}});
        answers["connsGet"] = with({{"maxConnections", 4}, {"connections", json::object()}});
        for (auto const* name :
             {"gattsPrimaryServicesGet", "gattsServiceGet", "gattsCharGet", "gattsDescGet"}) {
            answers[name] = [this, name](json const& body, responder const& r) {
                if (!holding) {
                    answer(name, body, r);
                }
            };
        }
    }

    // From `primaries` and `db`; a handle not in `db` is unknown (31).
    void answer(std::string const& name, json const& body, responder const& r) {
        if (name == "gattsPrimaryServicesGet") {
            r.reply(quorl_utils::payload(primaries));
        } else if (auto const found = db.find(body.at("handle").get<unsigned>());
                   found != db.end()) {
            r.reply(quorl_utils::payload(found->second));
        } else {
            r.fail(31);
        }
    }

    // Answers the held walk requests since `mark`, newest first when
    // `reversed`, until none is left; the loop runs after each answer.
    void release_held(bool reversed) {
        for (;;) {
            std::vector<std::size_t> open;
            for (auto i = mark; i < got.size(); ++i) {
                if (got[i].name.rfind("gatts", 0) == 0 && answered.count(i) == 0) {
                    open.push_back(i);
                }
            }
            if (open.empty()) {
                return;
            }
            auto const i = reversed ? open.back() : open.front();
            answered.insert(i);
            answer(got[i].name, got[i].body, *got[i].reply);
            loop->run();
        }
    }

    bt_ctrl::gatts& gatts() { return client->get_gatts(); }

    // A sync whose result is noted as "<what>: <result>".
    utils::link sync(std::string const& what) {
        return gatts().sync(
            [this, what](auto const& ec) { note(heard, what + ": " + result(ec)); });
    }
    static std::string result(std::error_code const& ec) {
        return ec ? std::string(ec.category().name()) + " " + ec.message() : "ok";
    }

    // The requests since `mark` with that name and that "handle".
    long count(std::string const& name, unsigned handle) const {
        return std::count_if(got.begin() + static_cast<long>(mark), got.end(), [&](auto const& r) {
            return r.name == name && r.body.is_object() && r.body.value("handle", 0u) == handle;
        });
    }

    std::string tree() const { return children(client->get_gatts().get_profile().get_root()); }

    json primaries = json::array();
    std::map<unsigned, json> db;
    std::set<std::size_t> answered;
    bool holding = false;

private:
    template <typename Node>
    static std::vector<Node const*> by_handle(std::set<Node const*> const& nodes) {
        std::vector<Node const*> sorted(nodes.begin(), nodes.end());
        std::sort(sorted.begin(), sorted.end(),
                  [](auto a, auto b) { return a->get_handle() < b->get_handle(); });
        return sorted;
    }
    template <typename Value, typename Text>
    static std::string join(std::set<Value> const& values, Text text) {
        std::string out;
        for (auto const value : values) {
            out += (out.empty() ? "" : ",") + text(value);
        }
        return out;
    }
    template <typename Node>
    static std::string head(char kind, Node const* node) {
        return kind + std::to_string(node->get_handle()) + "(" + node->get_uuid().to_string(false);
    }
    static std::string braces(std::string const& inner) {
        return inner.empty() ? "" : "{" + inner + "}";
    }
    static std::string children(gatt::service const& s) {
        auto const permission = [](auto p) { return gatt::to_string(p); };
        std::string out;
        for (auto const* child : by_handle(s.get_childs())) {
            out +=
                head('S', child) + (child->is_enabled() ? ")" : ",off)") + braces(children(*child));
        }
        for (auto const* c : by_handle(s.get_characteristics())) {
            std::string descriptors;
            for (auto const* d : by_handle(c->get_descriptors())) {
                descriptors += head('D', d) + ";" + join(d->get_permissions(), permission) + ")";
            }
            out += head('C', c) + ";" +
                   join(c->get_properties(),
                        [](auto p) { return gatt::characteristic::to_string(p); }) +
                   ";" + join(c->get_permissions(), permission) + ")" + braces(descriptors);
        }
        return out;
    }
};

}  // namespace zelvo::tavrin::testing
