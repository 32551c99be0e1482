# Checks the shared library's ELF identity and exported symbols:
# the SONAME is libtavrin.so.0, the public interface is exported, and
# internal classes are not. Run with -DLIBRARY=<path to libtavrin.so>.
execute_process(COMMAND readelf -d ${LIBRARY} OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
if(NOT dynamic MATCHES "Library soname: \\[libtavrin\\.so\\.0\\]")
    message(FATAL_ERROR "SONAME is not libtavrin.so.0:\n${dynamic}")
endif()
get_filename_component(real ${LIBRARY} REALPATH)
get_filename_component(real_name ${real} NAME)
if(NOT real_name STREQUAL "libtavrin.so.0.0")
    message(FATAL_ERROR "library file is ${real_name}, not libtavrin.so.0.0")
endif()

execute_process(COMMAND nm -D -C --defined-only ${LIBRARY} OUTPUT_VARIABLE symbols
                COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "[abi:cxx11]" "" symbols "${symbols}")
# Clang gives the comparison operators that the standard library defines as
# friends of its map iterators the visibility of namespace std (default),
# whatever the hidden types they compare; they are weak copies nobody outside
# can name. They are left out of the check below, and only they.
string(REGEX REPLACE "[^\n]*W std::operator(==|!=)\\(std::_Rb_tree(_const)?_iterator<[^\n]*" ""
       symbols "${symbols}")

set(required
    "zelvo::tavrin::version::get_string"
    "zelvo::tavrin::utils::link::release()"
    "zelvo::tavrin::utils::scoped_link::~scoped_link()"
    "zelvo::tavrin::misc::create_link("
    "zelvo::tavrin::misc::split("
    "zelvo::tavrin::utils::mac_address::to_string("
    "zelvo::tavrin::utils::ip_address::to_string("
    "zelvo::tavrin::error::bt_ctrl_category::get_inst()"
    "zelvo::tavrin::bt_ctrl::address::is_valid() const"
    "zelvo::tavrin::bt_ctrl::to_phy("
    "zelvo::tavrin::bt_ctrl::capabilities::operator&="
    "zelvo::tavrin::gatt::uuid::to_string("
    "zelvo::tavrin::gatt::service::add_child("
    "zelvo::tavrin::gatt::profile::find_service("
    "zelvo::tavrin::utils::event_loop::event_loop()"
    "zelvo::tavrin::adapters::test_loop::advance("
    "zelvo::quorl::send("
    "zelvo::quorl::receive("
    "zelvo::quorl_server::send_event("
    "zelvo::quorl_utils::error::code() const"
    "zelvo::quorl_utils::scoped_link::~scoped_link()"
    "zelvo::stravik_part_payload::from_bytes")
foreach(symbol IN LISTS required)
    string(FIND "${symbols}" "${symbol}" found)
    if(found EQUAL -1)
        message(FATAL_ERROR "not exported: ${symbol}")
    endif()
endforeach()

# Internal classes live in zelvo::tavrin::impl and zelvo::quorl_detail
# (utils::link::impl is the public interface of a link's target and is allowed).
string(REPLACE "utils::link::impl" "" without_link_impl "${symbols}")
foreach(forbidden "zelvo::tavrin::impl::" "zelvo::quorl_detail::endpoint::" "zelvo::quorl_detail::frame_reader::"
        "zelvo::quorl_detail::encode_frame" "responder::state::"
        "(anonymous namespace)" "linkhandlerdetail")
    string(FIND "${without_link_impl}" "${forbidden}" found)
    if(NOT found EQUAL -1)
        string(SUBSTRING "${without_link_impl}" ${found} 160 context)
        message(FATAL_ERROR "internal symbol exported: ${context}")
    endif()
endforeach()
message(STATUS "exports ok")
