#include "programs/list_reading.h"

#include <fmt/format.h>

#include <utility>

#include "cdb_store/instance_key.h"

namespace cdbd {
namespace {

using cdb_store::Node;
using cdb_store::NodeId;

constexpr size_t kMaxEntries = 4'000'000;  // of one list: a provider that never ends is ended
constexpr uint16_t kAhead = 64;            // entries that one packet may serve
constexpr const char* kNotUnderstood = "the data provider's answer cannot be understood";

/// The leaf of that tag in an entry of `list`, in containers too. Null when there is none.
const Node* FindLeaf(const cdb_store::Schema& schema, const Node& list, const confd_wire::TagValue& value) {
  for (NodeId id = static_cast<NodeId>(list.id + 1); id < list.end; ++id) {
    const Node& node = schema.node(id);
    if (node.kind == cdb_store::NodeKind::kLeaf && node.tag == value.tag &&
        (value.ns == 0 || schema.ns(node).hash == value.ns))
      return &node;
  }
  return nullptr;
}

}  // namespace

ListReading::ListReading(const cdb_store::Schema& schema, Providers::Request request, int32_t thandle)
    : schema_{schema}, request_{std::move(request)}, thandle_{thandle} {}

std::string ListReading::Begin() {
  confd_wire::PacketOfSeveral packet;
  AddGetNext(&packet);
  return packet.Take();
}

std::string ListReading::Ask() {
  if (error_ || !next_ || open_key_ != 0 || open_object_ != 0) return {};
  confd_wire::PacketOfSeveral packet;
  open_object_ = NewRequest();
  packet.Add(
      confd_wire::GetObject{open_object_, thandle_, request_.list->callpoint, request_.list->id, next_->encoded});
  asked_ = std::move(next_->keys);
  next_.reset();
  AddGetNext(&packet);
  return packet.Take();
}

void ListReading::AddGetNext(confd_wire::PacketOfSeveral* packet) {
  open_key_ = NewRequest();
  last_number_ += 2 * kAhead;  // those of what the provider goes on with
  packet->Add(confd_wire::GetNext{open_key_, thandle_, request_.list->callpoint, request_.list->id,
                                  request_.parent_keys, position_, kAhead});
}

uint64_t ListReading::NewRequest() { return uint64_t{static_cast<uint32_t>(thandle_)} << 32 | ++last_number_; }

void ListReading::OnAnswer(uint64_t request, std::string_view message) {
  switch (confd_wire::TypeOf(message).value_or(confd_wire::MessageType::kHello)) {
    case confd_wire::MessageType::kErrorReply: {
      const auto reply = confd_wire::Decode<confd_wire::ErrorReply>(message);
      return Fail(!reply ? kNotUnderstood : reply->text.empty() ? "the data provider refused" : reply->text);
    }
    case confd_wire::MessageType::kNextKeyReply:
      return request == open_key_ ? OnKey(message) : Fail(kNotUnderstood);
    case confd_wire::MessageType::kObjectReply:
    case confd_wire::MessageType::kNotFoundReply:
      if (request != open_object_) return Fail(kNotUnderstood);
      open_object_ = 0;
      complete_.push_back({std::exchange(asked_, {}), std::string{message}});
      return;
    default:
      return Fail(kNotUnderstood);
  }
}

void ListReading::OnKey(std::string_view message) {
  auto reply = confd_wire::Decode<confd_wire::NextKeyReply>(message);
  if (!reply) return Fail(kNotUnderstood);
  const uint64_t request = std::exchange(open_key_, 0);
  if (reply->end) {
    end_ = true;
    return;
  }
  auto encoded = EncodeKeys(reply->keys);
  if (!encoded) return;
  if (++entries_ > kMaxEntries) return Fail("the data provider's list does not end");
  position_ = reply->next;
  if (!reply->goes_on) {
    next_ = Next{std::move(reply->keys), *std::move(encoded)};
    return;
  }
  const bool was_allowed = (request & UINT32_MAX) + 2 <= last_number_;
  if (open_object_ != 0 || !was_allowed) return Fail(kNotUnderstood);
  asked_ = std::move(reply->keys);
  open_object_ = request + 1;
  open_key_ = request + 2;
}

std::optional<std::string> ListReading::EncodeKeys(const Keys& keys) {
  const Node& list = *request_.list;
  if (keys.size() != list.keys.size()) {
    Fail("the data provider gave a wrong number of keys");
    return std::nullopt;
  }
  cdb_store::InstanceKey encoded{request_.parent_keys};
  for (size_t i = 0; i < keys.size(); ++i) {
    const Node& key = schema_.node(list.keys[i]);
    if (keys[i].type == key.type && encoded.Append(key.type, keys[i].stored)) continue;
    Fail("the data provider's key '" + key.name + "' is of another type");
    return std::nullopt;
  }
  return std::string{encoded.keys()};
}

void ListReading::HandOn() {
  for (size_t i = 0; i < complete_.size() && !error_; ++i) HandOn(complete_[i]);
  complete_.clear();
}

void ListReading::HandOn(const Entry& entry) {
  const Node& list = *request_.list;
  if (confd_wire::TypeOf(entry.object) == confd_wire::MessageType::kNotFoundReply) return;  // gone meanwhile
  ProvidedRow row;
  row.leaves.reserve(list.keys.size() + list.children.size());
  for (size_t i = 0; i < entry.keys.size(); ++i) {
    const Node& key = schema_.node(list.keys[i]);
    row.leaves.emplace_back(key.id, cdb_store::ValueToText(key, entry.keys[i].type, entry.keys[i].stored));
  }
  const auto reply = confd_wire::Decode<confd_wire::ObjectReply>(entry.object);
  if (!reply) return Fail(kNotUnderstood);
  for (const confd_wire::TagValue& value : reply->values) {
    const Node* leaf = FindLeaf(schema_, list, value);
    if (leaf == nullptr)
      return Fail(fmt::format("the data provider sent a value with the unknown tag {:#x}", value.tag));
    if (!leaf->IsKeyLeaf())
      row.leaves.emplace_back(leaf->id, cdb_store::ValueToText(*leaf, value.value.type, value.value.stored));
  }
  request_.take(row);
}

void ListReading::Fail(std::string why) {
  if (!error_) error_ = std::move(why);
}

}  // namespace cdbd
