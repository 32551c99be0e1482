// The application's GATT server in the client mode of the fuzz target: it
// walks the controller's database (sync), edits it, reads the mirror and
// watches for updates; and on its connections it registers value handlers
// at all three levels and answers peers' reads and writes, inside a handler
// or later. Handlers may throw, as an application's may.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "tavrin/bt_ctrl/connection.hpp"
#include "tavrin/bt_ctrl/interface.hpp"
#include "tavrin/utils/link.hpp"

namespace fuzzing {

class client_gatt {
public:
    static constexpr unsigned operation_count = 15;

    explicit client_gatt(std::shared_ptr<zelvo::tavrin::bt_ctrl> client);

    // One of `operation_count` operations, its details drawn from
    // `argument`. `connection` may be null; the connection operations then
    // do nothing.
    void call(unsigned operation, unsigned argument,
              zelvo::tavrin::bt_ctrl::connection const* connection);

    void release();
    void clear();

private:
    // A handle to name in a request: one the controller handed out, one of
    // the mirror, or a small number of the input's.
    unsigned pick_handle(unsigned which) const;
    void sync(unsigned argument, int again);
    void serve(zelvo::tavrin::bt_ctrl::connection const& connection, unsigned argument);
    void answer(zelvo::tavrin::bt_ctrl::connection const& connection, unsigned argument);
    void keep(zelvo::tavrin::utils::link link);

    std::shared_ptr<zelvo::tavrin::bt_ctrl> client;
    // Handles the controller handed out, shared with the edits' handlers.
    std::shared_ptr<std::vector<unsigned>> created = std::make_shared<std::vector<unsigned>>();
    std::vector<zelvo::tavrin::utils::link> links;
    std::vector<zelvo::tavrin::utils::link> handlers;
};

}  // namespace fuzzing
