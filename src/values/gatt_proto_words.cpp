#include "values/gatt_proto_words.hpp"

#include "values/enum_words.hpp"

namespace zelvo::tavrin::impl {

namespace {

using error::gatt_proto;

enum_word<gatt_proto> const words[] = {
    {gatt_proto::success, "success"},
    {gatt_proto::invalid_handle, "invalidHandle"},
    {gatt_proto::read_not_permitted, "readNotPermitted"},
    {gatt_proto::write_not_permitted, "writeNotPermitted"},
    {gatt_proto::invalid_pdu, "invalidPdu"},
    {gatt_proto::insufficient_authentication, "insufficientAuthentication"},
    {gatt_proto::request_not_supported, "requestNotSupported"},
    {gatt_proto::invalid_offset, "invalidOffset"},
    {gatt_proto::insufficient_authorization, "insufficientAuthorization"},
    {gatt_proto::prepare_queue_full, "prepareQueueFull"},
    {gatt_proto::attribute_not_found, "attributeNotFound"},
    {gatt_proto::attribute_not_long, "attributeNotLong"},
    {gatt_proto::insufficient_encryption_key_size, "insufficientEncryptionKeySize"},
    {gatt_proto::invalid_attribute_value_length, "invalidAttributeValueLength"},
    {gatt_proto::unlikely_error, "unlikelyError"},
    {gatt_proto::insufficient_encryption, "insufficientEncryption"},
    {gatt_proto::unsupported_group_type, "unsupportedGroupType"},
    {gatt_proto::insufficient_resources, "insufficientResources"},
    {gatt_proto::database_out_of_sync, "databaseOutOfSync"},
    {gatt_proto::value_not_allowed, "valueNotAllowed"},
    {gatt_proto::write_request_rejected, "writeRequestRejected"},
    {gatt_proto::cccd_improperly_configured, "cccdImproperlyConfigured"},
    {gatt_proto::procedure_already_in_progress, "procedureAlreadyInProgress"},
    {gatt_proto::out_of_range, "outOfRange"},
    {gatt_proto::unknown, "unknown"},
};

}  // namespace

std::string to_word(gatt_proto status) {
    return word_of(words, status, "Unknown GATT proto error");
}

std::optional<gatt_proto> gatt_proto_of(std::string const& word) {
    return value_of(words, word);
}

}  // namespace zelvo::tavrin::impl
