#include "cdb_store_testing/models.h"

#include "cdb_store/schema_builder.h"

namespace cdb_store::testing {
namespace {

/// Adds nodes under one parent with little text.
class Under final {
 public:
  Under(SchemaBuilder& builder, uint16_t ns, NodeId parent) : builder_{builder}, ns_{ns}, parent_{parent} {}

  NodeId Leaf(const char* name, ValueType type) { return builder_.Add(parent_, ns_, {.name = name, .type = type}); }
  NodeId LeafList(const char* name, ValueType type) {
    return builder_.Add(parent_, ns_, {.kind = NodeKind::kLeafList, .name = name, .type = type});
  }
  NodeId Enum(const char* name) {
    return builder_.Add(parent_, ns_,
                        {.name = name, .type = ValueType::kEnum, .enums = {{"north", 1}, {"east", -2}, {"south", 30}}});
  }
  NodeId Decimal(const char* name) {
    return builder_.Add(parent_, ns_, {.name = name, .type = ValueType::kDecimal64, .fraction_digits = 2});
  }
  NodeId Octets(const char* name) {
    return builder_.Add(parent_, ns_, {.name = name, .type = ValueType::kBinary, .binary_text = BinaryText::kOctets});
  }
  Under Container(const char* name) { return Inner({.kind = NodeKind::kContainer, .name = name}); }
  Under Presence(const char* name) { return Inner({.kind = NodeKind::kPresenceContainer, .name = name}); }
  Under List(const char* name, std::vector<std::string> keys) {
    return Inner({.kind = NodeKind::kList, .name = name, .keys = std::move(keys)});
  }
  Under Inner(NodeSpec spec) { return {builder_, ns_, builder_.Add(parent_, ns_, std::move(spec))}; }
  Under Module(uint16_t ns) { return {builder_, ns, parent_}; }

 private:
  SchemaBuilder& builder_;
  uint16_t ns_;
  NodeId parent_;
};

void AddSites(Under box, uint16_t extra) {
  Under site = box.List("site", {"name"});
  site.Leaf("name", ValueType::kString);
  site.Decimal("height");
  site.Leaf("enabled", ValueType::kEmpty);
  Under where = site.Container("where");
  where.Leaf("latitude", ValueType::kInt64);
  Under floor = where.List("floor", {"level"});
  floor.Leaf("level", ValueType::kInt8);
  floor.Leaf("label", ValueType::kString);
  Under room = floor.List("room", {"number", "wing"});
  room.Leaf("number", ValueType::kUint16);
  room.Enum("wing");
  room.Leaf("area", ValueType::kUint32);
  room.LeafList("tag", ValueType::kString);
  Under locked = room.Presence("locked");
  locked.Leaf("since", ValueType::kUint64);
  Under notes = room.Container("notes");
  notes.Leaf("text", ValueType::kString);
  notes.Leaf("seen", ValueType::kEmpty);
  site.Leaf("address", ValueType::kIpv6);
  site.Module(extra).Leaf("owner", ValueType::kString);
}

}  // namespace

Schema AntiSpoofingSchema() {
  SchemaBuilder builder;
  const uint16_t ns =
      builder.AddNamespace({kAntiSpoofingHash, "ais", "anti-ip-spoofing", "urn:ip-spoofing:anti-ip-spoofing"});
  Under root(builder, ns, kRootId);
  Under list = root.Container("config").Container("anti-ip-spoofing").List("interface", {"interface-name"});
  list.Leaf("interface-name", ValueType::kString);
  Under allowed = list.Container("allowed-ip");
  allowed.Leaf("all", ValueType::kEmpty);
  allowed.Leaf("ipv4-all", ValueType::kEmpty);
  allowed.Leaf("ipv6-all", ValueType::kEmpty);
  Under ipv4 = allowed.List("ipv4", {"address", "vlan"});
  ipv4.Leaf("address", ValueType::kIpv4);
  ipv4.Leaf("vlan", ValueType::kInt32);
  ipv4.Octets("mac");
  return builder.Build().value();
}

Schema BoxSchema() {
  SchemaBuilder builder;
  const uint16_t ns = builder.AddNamespace({kBoxHash, "tb", "test-box", "urn:test:box"});
  const uint16_t extra = builder.AddNamespace({0, "tx", "test-extra", "urn:test:extra"});
  Under box = Under(builder, ns, kRootId).Container("box");
  box.Leaf("name", ValueType::kString);
  Under clock = box.Container("clock");
  clock.Leaf("zone", ValueType::kString);
  clock.Leaf("offset", ValueType::kInt16);
  Under login = box.Presence("login");
  login.Leaf("banner", ValueType::kString);
  login.LeafList("cipher", ValueType::kString);
  Under strict = login.Presence("strict");
  strict.Leaf("level", ValueType::kUint8);
  box.LeafList("dns", ValueType::kIpv4);
  box.LeafList("weight", ValueType::kInt32);
  AddSites(box, extra);
  Under numbers = box.List("number", {"i8", "i16", "i32", "i64", "u8", "u16", "u32", "u64"});
  numbers.Leaf("i8", ValueType::kInt8);
  numbers.Leaf("i16", ValueType::kInt16);
  numbers.Leaf("i32", ValueType::kInt32);
  numbers.Leaf("i64", ValueType::kInt64);
  numbers.Leaf("u8", ValueType::kUint8);
  numbers.Leaf("u16", ValueType::kUint16);
  numbers.Leaf("u32", ValueType::kUint32);
  numbers.Leaf("u64", ValueType::kUint64);
  numbers.Leaf("note", ValueType::kString);
  Under other = box.List("other", {"flag", "side", "blob", "v4", "v6", "price", "text"});
  other.Leaf("flag", ValueType::kBool);
  other.Enum("side");
  other.Leaf("blob", ValueType::kBinary);
  other.Leaf("v4", ValueType::kIpv4);
  other.Leaf("v6", ValueType::kIpv6);
  other.Decimal("price");
  other.Leaf("text", ValueType::kString);
  box.Module(extra).Leaf("owner", ValueType::kString);
  Under state = box.Inner({.kind = NodeKind::kContainer, .name = "state", .config = false});
  Under row = state.Inner({.kind = NodeKind::kList, .name = "row", .callpoint = "rows", .keys = {"position"}});
  row.Leaf("position", ValueType::kInt64);
  row.Leaf("text", ValueType::kString);
  Under root(builder, ns, kRootId);
  root.Leaf("twin", ValueType::kString);
  root.Module(extra).Leaf("twin", ValueType::kString);
  return builder.Build().value();
}

}  // namespace cdb_store::testing
