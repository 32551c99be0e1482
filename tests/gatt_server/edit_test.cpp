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
    using edit_call = std::function<utils::link(bt_ctrl::gatts&, EditTest&)>;

    auto created(std::string const& what) {
        return [this, what](unsigned handle, std::error_code const& ec) {
            note(heard, what + ": " + std::to_string(handle) + " " + result(ec));
        };
    }
    auto done(std::string const& what) {
        return [this, what](std::error_code const& ec) { note(heard, what + ": " + result(ec)); };
    }

    // The requests whose reply carries the new attribute's handle.
    static bool creating(std::string const& request) {
        return request == "gattsServiceAdd" || request == "gattsCharAdd" ||
               request == "gattsDescAdd";
    }

    struct edit_case {
        std::string request;
        std::string body;
        edit_call call;
    };

    // Every operation, with the request and payload it must send.
    std::vector<edit_case> all_edits() {
        static gatt::uuid const custom("12345678-9abc-def0-1234-56789abcdef0");
        return {
            {"gattsServiceAdd", R"({"enabled":true,"uuid":"0000180f-0000-1000-8000-00805f9b34fb"})",
             [](auto& g, auto& t) {
                 return g.add_service(gatt::uuid("180f"), true, std::nullopt, t.created("op"));
             }},
            {"gattsServiceAdd",
             R"({"enabled":false,"parentHandle":0,"uuid":"12345678-9abc-def0-1234-56789abcdef0"})",
             [](auto& g, auto& t) { return g.add_service(custom, false, 0u, t.created("op")); }},
            {"gattsServiceRemove", R"({"handle":7})",
             [](auto& g, auto& t) { return g.del_service(7, t.done("op")); }},
            {"gattsServiceReferenceAdd", R"({"handle":7,"parentHandle":3})",
             [](auto& g, auto& t) { return g.add_service_reference(7, 3, t.done("op")); }},
            {"gattsServiceReferenceRemove", R"({"handle":7,"parentHandle":3})",
             [](auto& g, auto& t) { return g.del_service_reference(7, 3, t.done("op")); }},
            {"gattsServiceEnable", R"({"handle":7})",
             [](auto& g, auto& t) { return g.enable_service(7, true, t.done("op")); }},
            {"gattsServiceDisable", R"({"handle":7})",
             [](auto& g, auto& t) { return g.enable_service(7, false, t.done("op")); }},
            {"gattsCharAdd",
             R"({"parentHandle":7,"permissions":["read","write"],"properties":["read","notify"],)"
             R"("uuid":"00002a19-0000-1000-8000-00805f9b34fb"})",
             [](auto& g, auto& t) {
                 return g.add_characteristic(gatt::uuid("2a19"), {property::notify, property::read},
                                             {permission::write, permission::read}, 7,
                                             t.created("op"));
             }},
            {"gattsCharAdd",
             R"({"parentHandle":7,"permissions":[],"properties":[],"uuid":"12345678-9abc-def0-1234-56789abcdef0"})",
             [](auto& g, auto& t) {
                 return g.add_characteristic(custom, {}, {}, 7, t.created("op"));
             }},
            {"gattsCharRemove", R"({"handle":8})",
             [](auto& g, auto& t) { return g.del_characteristic(8, t.done("op")); }},
            {"gattsDescAdd",
             R"({"parentHandle":8,"permissions":["read"],"uuid":"00002902-0000-1000-8000-00805f9b34fb"})",
             [](auto& g, auto& t) {
                 return g.add_descriptor(gatt::uuid("2902"), {permission::read}, 8,
                                         t.created("op"));
             }},
            {"gattsDescRemove", R"({"handle":9})",
             [](auto& g, auto& t) { return g.del_descriptor(9, t.done("op")); }},
        };
    }
};

TEST_F(EditTest, EachEditSendsItsPayloadAndHandsOnTheAnswer) {
    start_scripted();
    for (auto const& c : all_edits()) {
        SCOPED_TRACE(c.request + " " + c.body);
        bool const creating = EditTest::creating(c.request);
        // Accepted, then refused by the controller.
        for (bool const accept : {true, false}) {
            answers[c.request] =
                accept ? with(creating ? json{{"handle", 42}} : json::object()) : refused(39);
            heard.clear();
            mark = got.size();
            c.call(gatts(), *this);
            loop->run();
            EXPECT_THAT(sent(), ElementsAre(c.request + " " + c.body));
            std::string const expected =
                accept ? (creating ? "op: 42 ok" : "op: ok")
                       : (creating ? "op: 0 gatt unknown reference" : "op: gatt unknown reference");
            EXPECT_THAT(heard, ElementsAre(expected));
        }
    }
    // Edits leave the mirror alone.
    EXPECT_THAT(gatts().get_profile().get_primary_services(), IsEmpty());
}

TEST_F(EditTest, RefusalsArePostedAndCancelledHandlersStaySilent) {
    start_scripted();
    heard.clear();
    auto const ops = all_edits();
    // A cancelled handler: the edit still goes out, its answer is dropped.
    answers["gattsServiceRemove"] = with(json::object());
    auto link = ops[2].call(gatts(), *this);
    link.release();
    throw_at = "op";
    ops[5].call(gatts(), *this);
    answers["gattsServiceEnable"] = with(json::object());
    loop->run();
    EXPECT_THAT(names(mark), ElementsAre("gattsServiceRemove", "gattsServiceEnable"));
    EXPECT_THAT(heard, ElementsAre("op: ok"));
    EXPECT_THAT(failures,
                ElementsAre("Failed response handler on enabling/disabling GATTS service"));
    throw_at.clear();

    client->disable();
    loop->run();
    for (auto const& c : ops) {
        SCOPED_TRACE(c.request);
        heard.clear();
        mark = got.size();
        c.call(gatts(), *this);
        EXPECT_THAT(heard, IsEmpty());
        loop->run();
        EXPECT_THAT(heard, ElementsAre(creating(c.request) ? "op: 0 bt_ctrl inappropriate state"
                                                           : "op: bt_ctrl inappropriate state"));
        EXPECT_EQ(got.size(), mark);
    }
}

}  // namespace
}  // namespace zelvo::tavrin::testing
