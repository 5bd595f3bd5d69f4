#include "dataplane/nft/rule.h"

#include <arpa/inet.h>
#include <libnftnl/expr.h>
#include <linux/netfilter.h>

#include <cstring>

namespace mgr::nft {
namespace {

constexpr uint32_t Register(uint32_t word) { return NFT_REG32_00 + word; }
uint32_t Size(const Data& data) { return static_cast<uint32_t>(data.size()); }

}  // namespace

Data Host32(uint32_t value) {
  Data data(sizeof value);
  std::memcpy(data.data(), &value, sizeof value);
  return data;
}

Data Net16(uint16_t value) { return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value & 0xff)}; }

Rule::Rule(const std::string& chain) : rule_{nftnl_rule_alloc()} {
  nftnl_rule_set_str(rule_.get(), NFTNL_RULE_CHAIN, chain.c_str());
  nftnl_rule_set_u32(rule_.get(), NFTNL_RULE_FAMILY, NFPROTO_NETDEV);
}

Rule& Rule::LoadMeta(uint32_t key, uint32_t word) {
  nftnl_expr* expression = nftnl_expr_alloc("meta");
  nftnl_expr_set_u32(expression, NFTNL_EXPR_META_KEY, key);
  nftnl_expr_set_u32(expression, NFTNL_EXPR_META_DREG, Register(word));
  nftnl_rule_add_expr(rule_.get(), expression);
  return *this;
}

Rule& Rule::LoadPayload(uint32_t base, uint32_t word, uint32_t offset, uint32_t size) {
  nftnl_expr* expression = nftnl_expr_alloc("payload");
  nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_BASE, base);
  nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
  nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_LEN, size);
  nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_DREG, Register(word));
  nftnl_rule_add_expr(rule_.get(), expression);
  return *this;
}

Rule& Rule::Compare(uint32_t word, uint32_t operation, const Data& value) {
  nftnl_expr* expression = nftnl_expr_alloc("cmp");
  nftnl_expr_set_u32(expression, NFTNL_EXPR_CMP_SREG, Register(word));
  nftnl_expr_set_u32(expression, NFTNL_EXPR_CMP_OP, operation);
  nftnl_expr_set(expression, NFTNL_EXPR_CMP_DATA, value.data(), Size(value));
  nftnl_rule_add_expr(rule_.get(), expression);
  return *this;
}

Rule& Rule::Mask(uint32_t word, const Data& mask) {
  const Data zero(mask.size());
  nftnl_expr* expression = nftnl_expr_alloc("bitwise");
  nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_SREG, Register(word));
  nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_DREG, Register(word));
  nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_LEN, Size(mask));
  nftnl_expr_set(expression, NFTNL_EXPR_BITWISE_MASK, mask.data(), Size(mask));
  nftnl_expr_set(expression, NFTNL_EXPR_BITWISE_XOR, zero.data(), Size(zero));
  nftnl_rule_add_expr(rule_.get(), expression);
  return *this;
}

Rule& Rule::Load(uint32_t word, const Data& value) {
  nftnl_expr* expression = nftnl_expr_alloc("immediate");
  nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_DREG, Register(word));
  nftnl_expr_set(expression, NFTNL_EXPR_IMM_DATA, value.data(), Size(value));
  nftnl_rule_add_expr(rule_.get(), expression);
  return *this;
}

Rule& Rule::Lookup(uint32_t word, const std::string& set, uint32_t flags) {
  nftnl_expr* expression = nftnl_expr_alloc("lookup");
  nftnl_expr_set_u32(expression, NFTNL_EXPR_LOOKUP_SREG, Register(word));
  nftnl_expr_set_str(expression, NFTNL_EXPR_LOOKUP_SET, set.c_str());
  nftnl_expr_set_u32(expression, NFTNL_EXPR_LOOKUP_FLAGS, flags);
  nftnl_rule_add_expr(rule_.get(), expression);
  return *this;
}

Rule& Rule::Count(const std::string& counter) {
  nftnl_expr* expression = nftnl_expr_alloc("objref");
  nftnl_expr_set_u32(expression, NFTNL_EXPR_OBJREF_IMM_TYPE, NFT_OBJECT_COUNTER);
  nftnl_expr_set_str(expression, NFTNL_EXPR_OBJREF_IMM_NAME, counter.c_str());
  nftnl_rule_add_expr(rule_.get(), expression);
  return *this;
}

Rule& Rule::To(int verdict, const std::string& chain) {
  nftnl_expr* expression = nftnl_expr_alloc("immediate");
  nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
  nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_VERDICT, static_cast<uint32_t>(verdict));
  if (!chain.empty()) nftnl_expr_set_str(expression, NFTNL_EXPR_IMM_CHAIN, chain.c_str());
  nftnl_rule_add_expr(rule_.get(), expression);
  return *this;
}

Rule& Rule::Verdict(int verdict) { return To(verdict, {}); }
Rule& Rule::Jump(const std::string& chain) { return To(NFT_JUMP, chain); }
Rule& Rule::Goto(const std::string& chain) { return To(NFT_GOTO, chain); }

Rule& Rule::LoadLink(uint32_t word, uint32_t offset, uint32_t size) {
  return LoadPayload(NFT_PAYLOAD_LL_HEADER, word, offset, size);
}
Rule& Rule::LoadNetwork(uint32_t word, uint32_t offset, uint32_t size) {
  return LoadPayload(NFT_PAYLOAD_NETWORK_HEADER, word, offset, size);
}
Rule& Rule::LoadTransport(uint32_t word, uint32_t offset, uint32_t size) {
  return LoadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, word, offset, size);
}
Rule& Rule::LoadLength(uint32_t word) { return LoadMeta(NFT_META_LEN, word); }
Rule& Rule::Protocol(uint16_t type) { return LoadMeta(NFT_META_PROTOCOL, 0).Is(0, Net16(type)); }
Rule& Rule::ProtocolIn(const std::string& set) { return LoadMeta(NFT_META_PROTOCOL, 0).In(0, set); }
Rule& Rule::Ipv4IsSound() { return LoadMeta(NFT_META_L4PROTO, 0); }
Rule& Rule::LinkIs(uint32_t offset, const Data& value) { return LoadLink(0, offset, Size(value)).Is(0, value); }
Rule& Rule::LinkIsNot(uint32_t offset, const Data& value) {
  return LoadLink(0, offset, Size(value)).Compare(0, NFT_CMP_NEQ, value);
}
Rule& Rule::NetworkIs(uint32_t offset, const Data& value) { return LoadNetwork(0, offset, Size(value)).Is(0, value); }
Rule& Rule::NetworkHas(uint32_t bytes) { return LoadNetwork(0, bytes - 1, 1); }
Rule& Rule::TransportIs(uint32_t offset, const Data& value) {
  return LoadTransport(0, offset, Size(value)).Is(0, value);
}

}  // namespace mgr::nft
