#include "programs/list_reading.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "cdb_store/instance_key.h"

namespace cdbd {
namespace {

using cdb_store::Node;
using cdb_store::NodeId;

constexpr size_t kMaxRows = 4'000'000;  // of one list, pages included: a provider that never ends is stopped
constexpr uint16_t kPage = 128;         // rows

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

std::string ListReading::Ask() {
  if (error_ || end_ || open_ != 0) return {};
  open_ = uint64_t{static_cast<uint32_t>(thandle_)} << 32 | ++last_number_;
  return confd_wire::Encode(confd_wire::ReadRows{open_, thandle_, request_.list->callpoint, request_.list->id,
                                                 request_.parent_keys, position_, kPage});
}

void ListReading::OnRows(confd_wire::Rows page) {
  open_ = 0;
  end_ = page.end;
  position_ = page.next;
  count_ += page.rows.size() + 1;
  if (count_ > kMaxRows) return Fail("the data provider's list does not end");
  rows_.insert(rows_.end(), std::make_move_iterator(page.rows.begin()), std::make_move_iterator(page.rows.end()));
}

void ListReading::OnFailure(const confd_wire::ReadFailed& failure) {
  open_ = 0;
  Fail(failure.text.empty() ? "the data provider refused" : failure.text);
}

void ListReading::HandOn() {
  for (size_t i = 0; i < rows_.size() && !error_; ++i) HandOn(rows_[i]);
  rows_.clear();
}

void ListReading::HandOn(const confd_wire::Row& row) {
  const Node& list = *request_.list;
  if (row.keys.size() != list.keys.size()) return Fail("the data provider gave a wrong number of keys");
  ProvidedRow provided;
  provided.leaves.reserve(row.keys.size() + row.values.size());
  cdb_store::InstanceKey encoded{request_.parent_keys};
  for (size_t i = 0; i < row.keys.size(); ++i) {
    const Node& key = schema_.node(list.keys[i]);
    const confd_wire::Value& value = row.keys[i];
    if (value.type != key.type || !encoded.Append(key.type, value.stored))
      return Fail("the data provider's key '" + key.name + "' is of another type");
    provided.leaves.emplace_back(key.id, cdb_store::ValueToText(key, value.type, value.stored));
  }
  for (const confd_wire::TagValue& value : row.values) {
    const Node* leaf = FindLeaf(schema_, list, value);
    if (leaf == nullptr)
      return Fail(fmt::format("the data provider sent a value with the unknown tag {:#x}", value.tag));
    if (!leaf->IsKeyLeaf())
      provided.leaves.emplace_back(leaf->id, cdb_store::ValueToText(*leaf, value.value.type, value.value.stored));
  }
  request_.take(provided);
}

void ListReading::Fail(std::string why) {
  if (!error_) error_ = std::move(why);
}

}  // namespace cdbd
