// The editing requests: exact payloads, the controller's answers, refusals
// and cancelled handlers.
#include "gatts_fixture.hpp"

namespace zelvo::tavrin::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using property = gatt::characteristic::property;
using permission = gatt::attribute_permission;

class EditTest : public GattsTest {
protected:
    void SetUp() override {
        start_scripted();
        heard.clear();
    }
    // Handlers of creating and other edits, noting "op: [<handle> ]<result>".
    std::function<void(unsigned, std::error_code const&)> const made = [this](unsigned h,
                                                                              auto const& ec) {
        note(heard, "op: " + std::to_string(h) + " " + result(ec));
    };
    std::function<void(std::error_code const&)> const done = [this](auto const& ec) {
        note(heard, "op: " + result(ec));
    };

    struct edit_case {
        std::string request, body;
        std::function<utils::link(bt_ctrl::gatts&, EditTest&)> call;
        bool creating = false;
    };
    // Every operation, with the request and the payload it must send.
    static std::vector<edit_case> edits() {
        static gatt::uuid const custom("12345678-9abc-def0-1234-56789abcdef0");
        std::string const long_custom = R"("uuid":"12345678-9abc-def0-1234-56789abcdef0")";
        return {
            {"gattsServiceAdd", R"({"enabled":true,"uuid":"0000180f-0000-1000-8000-00805f9b34fb"})",
             [](auto& g, auto& t) { return g.add_service({"180f"}, true, std::nullopt, t.made); },
             true},
            {"gattsServiceAdd", R"({"enabled":false,"parentHandle":0,)" + long_custom + "}",
             [](auto& g, auto& t) { return g.add_service(custom, false, 0u, t.made); }, true},
            {"gattsServiceRemove", R"({"handle":7})",
             [](auto& g, auto& t) { return g.del_service(7, t.done); }},
            {"gattsServiceReferenceAdd", R"({"handle":7,"parentHandle":3})",
             [](auto& g, auto& t) { return g.add_service_reference(7, 3, t.done); }},
            {"gattsServiceReferenceRemove", R"({"handle":7,"parentHandle":3})",
             [](auto& g, auto& t) { return g.del_service_reference(7, 3, t.done); }},
            {"gattsServiceEnable", R"({"handle":7})",
             [](auto& g, auto& t) { return g.enable_service(7, true, t.done); }},
            {"gattsServiceDisable", R"({"handle":7})",
             [](auto& g, auto& t) { return g.enable_service(7, false, t.done); }},
            {"gattsCharAdd",
             R"({"parentHandle":7,"permissions":["read","write"],"properties":["read","notify"],)"
             R"("uuid":"00002a19-0000-1000-8000-00805f9b34fb"})",
             [](auto& g, auto& t) {
                 return g.add_characteristic({"2a19"}, {property::notify, property::read},
                                             {permission::write, permission::read}, 7, t.made);
             },
             true},
            {"gattsCharAdd",
             R"({"parentHandle":7,"permissions":[],"properties":[],)" + long_custom + "}",
             [](auto& g, auto& t) { return g.add_characteristic(custom, {}, {}, 7, t.made); },
             true},
            {"gattsCharRemove", R"({"handle":8})",
             [](auto& g, auto& t) { return g.del_characteristic(8, t.done); }},
            {"gattsDescAdd",
             R"({"parentHandle":8,"permissions":["read"],"uuid":"00002902-0000-1000-8000-00805f9b34fb"})",
             [](auto& g, auto& t) {
                 return g.add_descriptor({"2902"}, {permission::read}, 8, t.made);
             },
             true},
            {"gattsDescRemove", R"({"handle":9})",
             [](auto& g, auto& t) { return g.del_descriptor(9, t.done); }},
        };
    }
};

TEST_F(EditTest, EachEditSendsItsPayloadAndHandsOnTheAnswer) {
    for (auto const& c : edits()) {
        SCOPED_TRACE(c.body);
        // Accepted, then refused by the controller.
        for (bool const accept : {true, false}) {
            answers[c.request] =
                accept ? with(c.creating ? json{{"handle", 42}} : json::object()) : refused(39);
            heard.clear();
            mark = got.size();
            c.call(gatts(), *this);
            loop->run();
            EXPECT_THAT(sent(), ElementsAre(c.request + " " + c.body));
            EXPECT_THAT(
                heard, ElementsAre(std::string("op: ") + (c.creating ? accept ? "42 " : "0 " : "") +
                                   (accept ? "ok" : "gatt unknown reference")));
        }
    }
    // Edits leave the mirror alone.
    EXPECT_THAT(gatts().get_profile().get_primary_services(), IsEmpty());
}

TEST_F(EditTest, RefusalsArePostedAndCancelledHandlersStaySilent) {
    auto const ops = edits();
    // A cancelled handler: the edit still goes out, its answer is dropped.
    answers["gattsServiceRemove"] = with(json::object());
    answers["gattsServiceEnable"] = with(json::object());
    ops[2].call(gatts(), *this).release();
    throw_at = "op";
    ops[5].call(gatts(), *this);
    loop->run();
    EXPECT_THAT(names(mark), ElementsAre("gattsServiceRemove", "gattsServiceEnable"));
    EXPECT_THAT(heard, ElementsAre("op: ok"));
    EXPECT_THAT(failures,
                ElementsAre("Failed response handler on enabling/disabling GATTS service"));
    throw_at.clear();

    client->disable();
    loop->run();
    for (auto const& c : ops) {
        SCOPED_TRACE(c.body);
        heard.clear();
        mark = got.size();
        c.call(gatts(), *this);
        EXPECT_THAT(heard, IsEmpty());
        loop->run();
        EXPECT_THAT(heard, ElementsAre(std::string("op: ") + (c.creating ? "0 " : "") +
                                       "bt_ctrl inappropriate state"));
        EXPECT_EQ(got.size(), mark);
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
