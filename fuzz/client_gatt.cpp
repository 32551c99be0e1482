// The GATT server calls of the client mode. Arguments are drawn from the
// argument byte's bits so that mutations reach the refusals, the requests
// that go out with handles the controller gave, handles of the mirror and
// handles it never gave, and the three levels of value handlers.
//
// Nothing here that the library may call after the application is gone
// holds the application: a walk's handler reaches the client through a weak
// reference, and a value handler answers through the connection's server
// object, which owns it.
#include "client_gatt.hpp"

#include <any>
#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "tavrin/bt_ctrl/connection_gatts.hpp"
#include "tavrin/bt_ctrl/gatts.hpp"
#include "tavrin/error.hpp"
#include "tavrin/gatt/profile.hpp"
#include "tavrin/gatt/uuid.hpp"

namespace fuzzing {

namespace {

using namespace zelvo::tavrin;
using property = gatt::characteristic::property;
using permission = gatt::attribute_permission;
using conn_gatts = bt_ctrl::connection::gatts;

constexpr std::size_t max_created = 8;
constexpr std::size_t max_links = 64;

enum operation : unsigned {
    sync_op,
    add_service_op,
    del_service_op,
    reference_op,
    enable_op,
    add_characteristic_op,
    del_characteristic_op,
    add_descriptor_op,
    del_descriptor_op,
    read_mirror_op,
    watch_op,
    release_op,
    serve_op,
    answer_op,
    drop_handlers_op,
};

gatt::uuid some_uuid(unsigned which) {
    static char const* const texts[] = {"180F", "2A19", "2902",
                                        "12345678-1234-5678-1234-56789abcdef0"};
    return gatt::uuid(texts[which % 4]);
}

std::set<property> some_properties(unsigned which) {
    // The five that a walk reads back, and now and then one it can't.
    std::set<property> made;
    property const all[] = {property::broadcast, property::read,     property::write,
                            property::notify,    property::indicate, property::write_no_response};
    for (unsigned bit = 0; bit < 6; ++bit) {
        if (which & (1u << bit)) {
            made.insert(all[bit]);
        }
    }
    return made;
}

std::set<permission> some_permissions(unsigned which) {
    std::set<permission> made;
    if (which & 1) {
        made.insert(permission::read);
    }
    if (which & 2) {
        made.insert(permission::write);
    }
    return made;
}

// Reads all the mirror shows, along every relation.
void read_mirror(gatt::profile const& profile, unsigned probe) {
    std::size_t seen = 0;
    for (auto const* service : profile.get_primary_services()) {
        (void)service->get_uuid().to_string(true);
        (void)service->is_enabled();
        seen += service->get_ancestors().size() + service->get_successors().size();
        for (auto const* child : service->get_childs()) {
            seen += child->get_parents().size();
        }
        for (auto const* chr : service->get_characteristics()) {
            seen += chr->get_properties().size() + chr->get_permissions().size();
            for (auto const* desc : chr->get_descriptors()) {
                seen += desc->get_permissions().size();
            }
        }
    }
    for (unsigned handle = probe; handle < probe + 8; ++handle) {
        seen += profile.find_attribute(handle).has_value();
        seen += profile.find_service(handle) != nullptr;
        seen += profile.find_characteristic(handle) != nullptr;
        seen += profile.find_descriptor(handle) != nullptr;
    }
    (void)seen;
}

std::function<void(std::error_code const&)> result(bool throws) {
    return [throws](std::error_code const&) {
        if (throws) {
            throw std::runtime_error("from the application");
        }
    };
}

}  // namespace

client_gatt::client_gatt(std::shared_ptr<bt_ctrl> client) : client(std::move(client)) {}

unsigned client_gatt::pick_handle(unsigned which) const {
    if ((which & 3) == 0) {
        return which >> 2;
    }
    std::vector<unsigned> pool(created->begin(), created->end());
    auto const& profile = client->get_gatts().get_profile();
    for (auto const* service : profile.get_primary_services()) {
        if (pool.size() >= 2 * max_created) {
            break;
        }
        pool.push_back(service->get_handle());
        for (auto const* chr : service->get_characteristics()) {
            pool.push_back(chr->get_handle());
        }
    }
    return pool.empty() ? which >> 2 : pool[(which >> 2) % pool.size()];
}

void client_gatt::call(unsigned operation, unsigned argument,
                       bt_ctrl::connection const* connection) {
    bool const throws = (argument & 0x80) != 0;
    auto& server = client->get_gatts();
    // Not `this`: a handler whose link was not kept may run after the
    // application has gone.
    auto const made = [created = created, throws](unsigned handle, std::error_code const& ec) {
        if (!ec && created->size() < max_created) {
            created->push_back(handle);
        }
        result(throws)(ec);
    };
    auto const done = result(throws);
    switch (operation % operation_count) {
        case sync_op:
            sync(argument, (argument & 4) ? 2 : 0);
            break;
        case add_service_op: {
            std::optional<unsigned> parent;
            if (argument & 2) {
                parent = pick_handle(argument >> 3);
            }
            keep(server.add_service(some_uuid(argument >> 2), (argument & 1) != 0, parent, made));
            break;
        }
        case del_service_op:
            keep(server.del_service(pick_handle(argument), done));
            break;
        case reference_op:
            if (argument & 1) {
                keep(server.add_service_reference(pick_handle(argument >> 1),
                                                  pick_handle(argument >> 4), done));
            } else {
                keep(server.del_service_reference(pick_handle(argument >> 1),
                                                  pick_handle(argument >> 4), done));
            }
            break;
        case enable_op:
            keep(server.enable_service(pick_handle(argument >> 1), (argument & 1) != 0, done));
            break;
        case add_characteristic_op:
            keep(server.add_characteristic(some_uuid(argument), some_properties(argument >> 1),
                                           some_permissions(argument >> 2),
                                           pick_handle(argument >> 3), made));
            break;
        case del_characteristic_op:
            keep(server.del_characteristic(pick_handle(argument), done));
            break;
        case add_descriptor_op:
            keep(server.add_descriptor(some_uuid(argument), some_permissions(argument >> 1),
                                       pick_handle(argument >> 2), made));
            break;
        case del_descriptor_op:
            keep(server.del_descriptor(pick_handle(argument), done));
            break;
        case read_mirror_op:
            read_mirror(server.get_profile(), argument & 0x3f);
            break;
        case watch_op: {
            // An application that walks again on every update.
            std::weak_ptr<bt_ctrl> const weak = client;
            bool const walks = (argument & 1) != 0;
            keep(server.notify_on_updated([weak, walks, throws](std::set<unsigned> const&) {
                if (throws) {
                    throw std::runtime_error("from the application");
                }
                if (auto const alive = weak.lock(); alive && walks) {
                    alive->get_gatts().sync([](std::error_code const&) {});
                }
            }));
            break;
        }
        case release_op:
            release();
            break;
        case serve_op:
            if (connection) {
                serve(*connection, argument);
            }
            break;
        case answer_op:
            if (connection) {
                answer(*connection, argument);
            }
            break;
        default:
            for (auto& link : handlers) {
                link.release();
            }
            handlers.clear();
            break;
    }
}

// A walk whose handler may throw, walk again (`again` more times), or be
// cancelled at once; with bit 1, two callers share it.
void client_gatt::sync(unsigned argument, int again) {
    std::weak_ptr<bt_ctrl> const weak = client;
    bool const throws = (argument & 0x80) != 0;
    auto const walk_again = [weak](int left) {
        return [weak, left](std::error_code const& ec) {
            if (auto const alive = weak.lock(); alive && !ec && left > 0) {
                alive->get_gatts().sync([](std::error_code const&) {});
            }
        };
    };
    auto const next = walk_again(again);
    auto const handler = [throws, next](std::error_code const& ec) {
        next(ec);
        if (throws) {
            throw std::runtime_error("from the application");
        }
    };
    auto link = client->get_gatts().sync(handler);
    if (argument & 1) {
        keep(client->get_gatts().sync(walk_again(1)));
    }
    if (argument & 2) {
        link.release();
    } else {
        keep(link);
    }
}

// Registers a value handler of one kind (bits 0-1) at one level (bits 2-3);
// the handler answers at once with bit 6, and throws with bit 7.
void client_gatt::serve(bt_ctrl::connection const& connection, unsigned argument) {
    auto& server = connection.get_gatts();
    conn_gatts* const answering = &server;
    bool const throws = (argument & 0x80) != 0;
    bool const answers = (argument & 0x40) != 0;
    auto const status = static_cast<error::gatt_proto>((argument >> 1) % 25);
    unsigned const handle = pick_handle(argument >> 4);
    auto const ignore = [](std::error_code const&) {};
    conn_gatts::predicate const accepts = [handle](unsigned asked) { return asked >= handle; };
    auto const finish = [throws] {
        if (throws) {
            throw std::runtime_error("from the application");
        }
    };
    // The handlers live in `server`: they may reach it by pointer, never
    // hold it.
    conn_gatts::read_handler const char_read = [answering, answers, status, finish, ignore](
                                                   unsigned h, unsigned) {
        if (answers) {
            answering->respond_on_characteristic_value_read(h, {0x0A, 0xFF}, status, ignore);
        }
        finish();
    };
    conn_gatts::read_handler const desc_read = [answering, answers, status, finish, ignore](
                                                   unsigned h, unsigned) {
        if (answers) {
            answering->respond_on_descriptor_value_read(h, {}, status, ignore);
        }
        finish();
    };
    conn_gatts::characteristic_write_handler const char_write =
        [answering, answers, status, finish, ignore](unsigned h, std::vector<unsigned char> const&,
                                                     unsigned, bool needed) {
            if (answers && needed) {
                answering->respond_on_characteristic_value_write(h, status, ignore);
            }
            finish();
        };
    conn_gatts::descriptor_write_handler const desc_write =
        [answering, answers, status, finish, ignore](unsigned h, std::vector<unsigned char> const&,
                                                     unsigned) {
            if (answers) {
                answering->respond_on_descriptor_value_write(h, status, ignore);
            }
            finish();
        };
    utils::link link;
    switch ((argument >> 2) & 3) {
        case 0:
            switch (argument & 3) {
                case 0:
                    link = server.set_characteristic_value_read_handler(handle, char_read);
                    break;
                case 1:
                    link = server.set_descriptor_value_read_handler(handle, desc_read);
                    break;
                case 2:
                    link = server.set_characteristic_value_write_handler(handle, char_write);
                    break;
                default:
                    link = server.set_descriptor_value_write_handler(handle, desc_write);
                    break;
            }
            break;
        case 1:
            switch (argument & 3) {
                case 0:
                    link = server.set_characteristic_value_read_handler(accepts, char_read);
                    break;
                case 1:
                    link = server.set_descriptor_value_read_handler(accepts, desc_read);
                    break;
                case 2:
                    link = server.set_characteristic_value_write_handler(accepts, char_write);
                    break;
                default:
                    link = server.set_descriptor_value_write_handler(accepts, desc_write);
                    break;
            }
            break;
        default:
            switch (argument & 3) {
                case 0:
                    link = server.set_characteristic_value_read_handler(char_read);
                    break;
                case 1:
                    link = server.set_descriptor_value_read_handler(desc_read);
                    break;
                case 2:
                    link = server.set_characteristic_value_write_handler(char_write);
                    break;
                default:
                    link = server.set_descriptor_value_write_handler(desc_write);
                    break;
            }
            break;
    }
    if (handlers.size() < max_links) {
        handlers.push_back(std::move(link));
    }
}

// An answer of one kind (bits 0-1), or a value notification (bit 2), later
// than any handler.
void client_gatt::answer(bt_ctrl::connection const& connection, unsigned argument) {
    auto& server = connection.get_gatts();
    auto const done = result((argument & 0x80) != 0);
    auto const status = static_cast<error::gatt_proto>((argument >> 3) % 25);
    unsigned const handle = pick_handle(argument >> 3);
    std::vector<unsigned char> const data(argument & 0x18, 0x5A);
    if (argument & 4) {
        keep(server.send_notify_on_characteristic_value_change(handle, (argument & 1) != 0, data,
                                                               done));
        return;
    }
    switch (argument & 3) {
        case 0:
            keep(server.respond_on_characteristic_value_read(handle, data, status, done));
            break;
        case 1:
            keep(server.respond_on_descriptor_value_read(handle, data, status, done));
            break;
        case 2:
            keep(server.respond_on_characteristic_value_write(handle, status, done));
            break;
        default:
            keep(server.respond_on_descriptor_value_write(handle, status, done));
            break;
    }
}

void client_gatt::keep(utils::link link) {
    if (links.size() < max_links) {
        links.push_back(std::move(link));
    }
}

void client_gatt::release() {
    for (auto& link : links) {
        link.release();
    }
    links.clear();
}

void client_gatt::clear() {
    release();
    for (auto& link : handlers) {
        link.release();
    }
    handlers.clear();
    created->clear();
}

}  // namespace fuzzing
