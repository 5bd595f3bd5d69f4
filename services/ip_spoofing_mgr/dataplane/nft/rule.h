#pragma once

#include <libnftnl/rule.h>
#include <linux/netfilter/nf_tables.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace mgr::nft {

using Data = std::vector<uint8_t>;

/// A value in host order, and in network order.
Data Host32(uint32_t value);
Data Net16(uint16_t value);

/// One rule: what must hold, from left to right, and what then happens. A read beyond the frame does not hold.
class Rule final {
 public:
  explicit Rule(const std::string& chain);

  Rule& Protocol(uint16_t type);  ///< the type after the first tag
  Rule& ProtocolIn(const std::string& set);
  Rule& Ipv4IsSound();  ///< version, header and total lengths, as the kernel itself checks them
  Rule& LinkIs(uint32_t offset, const Data& value);  ///< bytes counted from the destination MAC, tag included
  Rule& LinkIsNot(uint32_t offset, const Data& value);
  Rule& NetworkIs(uint32_t offset, const Data& value);    ///< bytes counted from the end of the first tag's type
  Rule& NetworkHas(uint32_t bytes);                       ///< so many bytes are there
  Rule& TransportIs(uint32_t offset, const Data& value);  ///< only of a packet that is not a later fragment
  /// Reads into one of 16 four-byte words, for the checks below.
  Rule& LoadLink(uint32_t word, uint32_t offset, uint32_t size);
  Rule& LoadNetwork(uint32_t word, uint32_t offset, uint32_t size);
  Rule& LoadTransport(uint32_t word, uint32_t offset, uint32_t size);
  Rule& LoadLength(uint32_t word);  ///< bytes after the first tag's type, in host order
  Rule& Load(uint32_t word, const Data& value);
  Rule& Mask(uint32_t word, const Data& mask);
  Rule& Is(uint32_t word, const Data& value) { return Compare(word, NFT_CMP_EQ, value); }
  Rule& Compare(uint32_t word, uint32_t operation, const Data& value);
  Rule& In(uint32_t word, const std::string& set) { return Lookup(word, set, 0); }
  Rule& NotIn(uint32_t word, const std::string& set) { return Lookup(word, set, NFT_LOOKUP_F_INV); }

  Rule& Count(const std::string& counter);
  Rule& Verdict(int verdict);  ///< NF_DROP, NF_ACCEPT, NFT_RETURN
  Rule& Jump(const std::string& chain);
  Rule& Goto(const std::string& chain);

  [[nodiscard]] nftnl_rule* get() const noexcept { return rule_.get(); }
  [[nodiscard]] std::string chain() const { return nftnl_rule_get_str(rule_.get(), NFTNL_RULE_CHAIN); }

 private:
  struct Free {
    void operator()(nftnl_rule* rule) const noexcept { nftnl_rule_free(rule); }
  };
  Rule& LoadPayload(uint32_t base, uint32_t word, uint32_t offset, uint32_t size);
  Rule& LoadMeta(uint32_t key, uint32_t word);
  Rule& Lookup(uint32_t word, const std::string& set, uint32_t flags);
  Rule& To(int verdict, const std::string& chain);
  std::unique_ptr<nftnl_rule, Free> rule_;
};

}  // namespace mgr::nft
