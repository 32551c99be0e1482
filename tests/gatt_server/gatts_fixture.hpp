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
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "../client/scripted_fixture.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/error.hpp"
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
        answers["gattsPrimaryServicesGet"] = [this](json const&, responder const& r) {
            if (!holding) {
                r.reply(quorl_utils::payload(primaries));
            }
        };
        for (auto const* name : {"gattsServiceGet", "gattsCharGet", "gattsDescGet"}) {
            answers[name] = [this](json const& body, responder const& r) {
                if (!holding) {
                    answer_attribute(body, r);
                }
            };
        }
    }

    // The attribute's entry in `db`, or the controller's unknown handle.
    void answer_attribute(json const& body, responder const& r) {
        auto const found = db.find(body.at("handle").get<unsigned>());
        if (found == db.end()) {
            r.fail(31);
        } else {
            r.reply(quorl_utils::payload(found->second));
        }
    }

    // Answers the held walk requests, newest first when `reversed`, until
    // none is left; the loop runs after each answer.
    void release_held(bool reversed) {
        for (;;) {
            std::vector<std::size_t> open;
            for (auto i = mark; i < got.size(); ++i) {
                if (got[i].reply && got[i].name.rfind("gatts", 0) == 0 && !answered[i]) {
                    open.push_back(i);
                }
            }
            if (open.empty()) {
                return;
            }
            auto const i = reversed ? open.back() : open.front();
            answered[i] = true;
            if (got[i].name == "gattsPrimaryServicesGet") {
                got[i].reply->reply(quorl_utils::payload(primaries));
            } else {
                answer_attribute(got[i].body, *got[i].reply);
            }
            loop->run();
        }
    }

    bt_ctrl::gatts& gatts() { return client->get_gatts(); }

    // A sync whose result is noted as "<what>: <result>".
    utils::link sync(std::string const& what) {
        return gatts().sync(
            [this, what](std::error_code const& ec) { note(heard, what + ": " + result(ec)); });
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

    std::string tree() const { return children(gatts_const().get_profile().get_root()); }

    static std::string texts(std::set<gatt::attribute_permission> const& permissions) {
        std::string out;
        for (auto const p : permissions) {
            out += (out.empty() ? "" : ",") + gatt::to_string(p);
        }
        return out;
    }

    json primaries = json::array();
    std::map<unsigned, json> db;
    std::map<std::size_t, bool> answered;
    bool holding = false;

private:
    bt_ctrl::gatts const& gatts_const() const { return std::as_const(*client).get_gatts(); }

    template <typename Node>
    static std::vector<Node const*> by_handle(std::set<Node const*> const& nodes) {
        std::vector<Node const*> sorted(nodes.begin(), nodes.end());
        std::sort(sorted.begin(), sorted.end(),
                  [](auto a, auto b) { return a->get_handle() < b->get_handle(); });
        return sorted;
    }
    static std::string braces(std::string const& inner) {
        return inner.empty() ? "" : "{" + inner + "}";
    }
    static std::string children(gatt::service const& s) {
        std::string out;
        for (auto const* child : by_handle(s.get_childs())) {
            out += "S" + std::to_string(child->get_handle()) + "(" +
                   child->get_uuid().to_string(false) + (child->is_enabled() ? "" : ",off") + ")" +
                   braces(children(*child));
        }
        for (auto const* c : by_handle(s.get_characteristics())) {
            std::string properties;
            for (auto const p : c->get_properties()) {
                properties += (properties.empty() ? "" : ",") + gatt::characteristic::to_string(p);
            }
            std::string descriptors;
            for (auto const* d : by_handle(c->get_descriptors())) {
                descriptors += "D" + std::to_string(d->get_handle()) + "(" +
                               d->get_uuid().to_string(false) + ";" + texts(d->get_permissions()) +
                               ")";
            }
            out += "C" + std::to_string(c->get_handle()) + "(" + c->get_uuid().to_string(false) +
                   ";" + properties + ";" + texts(c->get_permissions()) + ")" + braces(descriptors);
        }
        return out;
    }
};

}  // namespace zelvo::tavrin::testing
