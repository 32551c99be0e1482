// The GATT server database requests of a bound interface: the walk
// ("gattsPrimaryServicesGet", "gattsServiceGet", "gattsCharGet",
// "gattsDescGet") and the edits, each of which tells the interface's
// sessions of the handles it concerned with "gattsDbUpdated" after its reply.
#include <cctype>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "requests.hpp"
#include "tavrin/gatt/attribute_permission.hpp"
#include "tavrin/gatt/characteristic.hpp"
#include "tavrin/gatt/uuid.hpp"

namespace zelvo::tavrin::sim::requests {

namespace {

using nlohmann::json;
using kind = gatt_database::kind;
using words = std::set<std::string>;

// The longest UUID text taken: 32 digits with a '-' between any two.
constexpr std::size_t max_uuid_text = 64;

std::string lowered(std::string text) {
    for (auto& letter : text) {
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    return text;
}

// The words the controller stores, each as the library writes it; a
// request may write them in any case.
words const& property_words() {
    static words const all = [] {
        words made;
        using property = gatt::characteristic::property;
        for (auto const value : {property::broadcast, property::read, property::write_no_response,
                                 property::write, property::notify, property::indicate,
                                 property::signed_write, property::extended_props}) {
            made.insert(gatt::characteristic::to_string(value));
        }
        return made;
    }();
    return all;
}

words const& permission_words() {
    static words const all = {gatt::to_string(gatt::attribute_permission::read),
                              gatt::to_string(gatt::attribute_permission::write)};
    return all;
}

// An array of known words, in their stored form; nothing for any other
// value, a word unknown or an array longer than there are words.
std::optional<words> read_words(json const& value, words const& known) {
    if (!value.is_array() || value.size() > known.size()) {
        return std::nullopt;
    }
    words found;
    for (auto const& item : value) {
        if (!item.is_string()) {
            return std::nullopt;
        }
        auto const wanted = lowered(item.get<std::string>());
        auto match = known.end();
        for (auto word = known.begin(); word != known.end(); ++word) {
            if (lowered(*word) == wanted) {
                match = word;
            }
        }
        if (match == known.end()) {
            return std::nullopt;
        }
        found.insert(*match);
    }
    return found;
}

// The 36-character form of a UUID text; nothing for one that does not parse.
std::optional<std::string> read_uuid(json const& value) {
    if (!value.is_string() || value.get_ref<std::string const&>().size() > max_uuid_text) {
        return std::nullopt;
    }
    try {
        return gatt::uuid(value.get<std::string>()).to_string(true);
    } catch (std::exception const&) {
        return std::nullopt;
    }
}

// A handle as a request gives it; one beyond any the controller assigns is
// read as 0, which names nothing.
std::optional<unsigned> read_handle(json const& body, char const* key) {
    auto const& value = body.at(key);
    if (!value.is_number_unsigned()) {
        return std::nullopt;
    }
    auto const number = value.get<std::uint64_t>();
    return number > gatt_database::max_handle ? 0u : static_cast<unsigned>(number);
}

// The checks every request here makes, in order: the body's shape
// (malformed_request, with the handles under `handles` unsigned numbers),
// the session and the interface (refuse_unready), the `gattSrv` capability
// (unsupported_functionality).
std::optional<ctrl_error> refuse(std::optional<json> const& body, context const& ctx,
                                 words const& required, words const& optional,
                                 words const& handles) {
    if (!has_shape(body, required, optional)) {
        return ctrl_error::malformed_request;
    }
    for (auto const& key : handles) {
        if (body->contains(key) && !read_handle(*body, key.c_str())) {
            return ctrl_error::malformed_request;
        }
    }
    if (auto const refusal = refuse_unready(ctx)) {
        return *refusal;
    }
    if (!has_gatt_server(ctx)) {
        return ctrl_error::unsupported_functionality;
    }
    return std::nullopt;
}

gatt_database& database_of(context const& ctx) {
    return ctx.resources.database(ctx.handshake.bound_interface);
}

// The reply to an edit, and its event once the reply is out.
outcome applied(gatt_database::outcome const& result, context const& ctx) {
    if (auto const* refusal = std::get_if<ctrl_error>(&result)) {
        return *refusal;
    }
    auto const& done = std::get<gatt_database::change>(result);
    ctx.resources.database_changed(ctx.handshake.bound_interface, done.concerned);
    return done.handle != 0 ? json{{"handle", done.handle}} : json::object();
}

std::variant<gatt_database::attribute const*, ctrl_error> named(std::optional<json> const& body,
                                                                context const& ctx, kind what) {
    // Built once: the walk asks this for every attribute.
    static words const handle_only{"handle"};
    static words const none;
    if (auto const refusal = refuse(body, ctx, handle_only, none, handle_only)) {
        return *refusal;
    }
    return database_of(ctx).get(*read_handle(*body, "handle"), what);
}

outcome primary_services_get(std::optional<json> const& body, context const& ctx) {
    if (auto const refusal = refuse(body, ctx, {}, {}, {})) {
        return *refusal;
    }
    return json(database_of(ctx).primary_services());
}

outcome service_get(std::optional<json> const& body, context const& ctx) {
    auto const found = named(body, ctx, kind::service);
    if (auto const* refusal = std::get_if<ctrl_error>(&found)) {
        return *refusal;
    }
    auto const& service = *std::get<gatt_database::attribute const*>(found);
    return json{{"uuid", service.uuid},
                {"enabled", service.enabled},
                {"includedServices", service.includes},
                {"includedChars", service.members}};
}

outcome char_get(std::optional<json> const& body, context const& ctx) {
    auto const found = named(body, ctx, kind::characteristic);
    if (auto const* refusal = std::get_if<ctrl_error>(&found)) {
        return *refusal;
    }
    auto const& characteristic = *std::get<gatt_database::attribute const*>(found);
    return json{{"uuid", characteristic.uuid},
                {"permissions", characteristic.permissions},
                {"properties", characteristic.properties},
                {"includedDescriptors", characteristic.members}};
}

outcome desc_get(std::optional<json> const& body, context const& ctx) {
    auto const found = named(body, ctx, kind::descriptor);
    if (auto const* refusal = std::get_if<ctrl_error>(&found)) {
        return *refusal;
    }
    auto const& descriptor = *std::get<gatt_database::attribute const*>(found);
    return json{{"uuid", descriptor.uuid}, {"permissions", descriptor.permissions}};
}

outcome service_add(std::optional<json> const& body, context const& ctx) {
    if (auto const refusal =
            refuse(body, ctx, {"uuid", "enabled"}, {"parentHandle"}, {"parentHandle"})) {
        return *refusal;
    }
    auto const uuid = read_uuid(body->at("uuid"));
    if (!uuid || !body->at("enabled").is_boolean()) {
        return ctrl_error::malformed_request;
    }
    std::optional<unsigned> parent;
    if (body->contains("parentHandle")) {
        parent = read_handle(*body, "parentHandle");
    }
    return applied(database_of(ctx).add_service(*uuid, body->at("enabled").get<bool>(), parent),
                   ctx);
}

// The edits that name one attribute by "handle".
template <gatt_database::outcome (gatt_database::*edit)(unsigned)>
outcome remove(std::optional<json> const& body, context const& ctx) {
    if (auto const refusal = refuse(body, ctx, {"handle"}, {}, {"handle"})) {
        return *refusal;
    }
    return applied((database_of(ctx).*edit)(*read_handle(*body, "handle")), ctx);
}

template <gatt_database::outcome (gatt_database::*edit)(unsigned, unsigned)>
outcome reference(std::optional<json> const& body, context const& ctx) {
    if (auto const refusal =
            refuse(body, ctx, {"handle", "parentHandle"}, {}, {"handle", "parentHandle"})) {
        return *refusal;
    }
    return applied((database_of(ctx).*edit)(*read_handle(*body, "handle"),
                                            *read_handle(*body, "parentHandle")),
                   ctx);
}

template <bool enable>
outcome service_enable(std::optional<json> const& body, context const& ctx) {
    if (auto const refusal = refuse(body, ctx, {"handle"}, {}, {"handle"})) {
        return *refusal;
    }
    return applied(database_of(ctx).enable_service(*read_handle(*body, "handle"), enable), ctx);
}

outcome char_add(std::optional<json> const& body, context const& ctx) {
    if (auto const refusal =
            refuse(body, ctx, {"parentHandle", "uuid", "properties", "permissions"}, {},
                   {"parentHandle"})) {
        return *refusal;
    }
    auto const uuid = read_uuid(body->at("uuid"));
    auto const properties = read_words(body->at("properties"), property_words());
    auto const permissions = read_words(body->at("permissions"), permission_words());
    if (!uuid || !properties || !permissions) {
        return ctrl_error::malformed_request;
    }
    return applied(database_of(ctx).add_characteristic(*uuid, *properties, *permissions,
                                                       *read_handle(*body, "parentHandle")),
                   ctx);
}

outcome desc_add(std::optional<json> const& body, context const& ctx) {
    if (auto const refusal =
            refuse(body, ctx, {"parentHandle", "uuid", "permissions"}, {}, {"parentHandle"})) {
        return *refusal;
    }
    auto const uuid = read_uuid(body->at("uuid"));
    auto const permissions = read_words(body->at("permissions"), permission_words());
    if (!uuid || !permissions) {
        return ctrl_error::malformed_request;
    }
    return applied(
        database_of(ctx).add_descriptor(*uuid, *permissions, *read_handle(*body, "parentHandle")),
        ctx);
}

}  // namespace

void add_gatt_requests(handler_table& handlers) {
    handlers.insert({
        {"gattsPrimaryServicesGet", &primary_services_get},
        {"gattsServiceGet", &service_get},
        {"gattsCharGet", &char_get},
        {"gattsDescGet", &desc_get},
        {"gattsServiceAdd", &service_add},
        {"gattsServiceRemove", &remove<&gatt_database::remove_service>},
        {"gattsServiceReferenceAdd", &reference<&gatt_database::add_reference>},
        {"gattsServiceReferenceRemove", &reference<&gatt_database::remove_reference>},
        {"gattsServiceEnable", &service_enable<true>},
        {"gattsServiceDisable", &service_enable<false>},
        {"gattsCharAdd", &char_add},
        {"gattsCharRemove", &remove<&gatt_database::remove_characteristic>},
        {"gattsDescAdd", &desc_add},
        {"gattsDescRemove", &remove<&gatt_database::remove_descriptor>},
    });
}

}  // namespace zelvo::tavrin::sim::requests
