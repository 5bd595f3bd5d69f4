#include "dataplane/nft/port_rules.h"

#include <linux/if_ether.h>
#include <linux/netfilter.h>

#include "dataplane/verdict_text.h"

namespace mgr::nft {
namespace {

// Offsets from the destination MAC.
constexpr uint32_t kSourceMac = 6;
constexpr uint32_t kOuterType = 12;
constexpr uint32_t kTci = 14;
constexpr uint32_t kInnerType = 16;

std::string Base(PortId port) { return "port" + std::to_string(port); }
unsigned ModeOf(const PortConfig& port) { return static_cast<unsigned>(port.mode); }

class Builder final {
 public:
  explicit Builder(const PortConfig& port)
      : port_{port},
        base_{Base(port.id)},
        form_{base_ + ".form"},
        ipv4_{base_ + ".ipv4"},
        arp_{base_ + ".arp"},
        sender_{base_ + ".sender"},
        length_{base_ + ".length"},
        end_{base_ + ".end"},
        llc_{base_ + ".llc"},
        zero_{base_ + ".zero"},
        dhcp_{base_ + ".dhcp"} {}

  std::vector<Rule> Make() {
    if (VERDICT_PERMITS_EVERYTHING(ModeOf(port_))) {
      Pass(In(base_), VERDICT_ALLOW_ALL);
      return std::move(rules_);
    }
    AddBase();
    AddForm();
    AddLength();
    AddIpv4();
    AddArp();
    AddSender();
    AddLlc();
    return std::move(rules_);
  }

 private:
  static Rule In(const std::string& chain) { return Rule{chain}; }
  void Add(Rule& rule) { rules_.push_back(std::move(rule)); }
  void Add(Rule&& rule) { rules_.push_back(std::move(rule)); }
  void Pass(Rule&& rule, verdict_reason reason) { Pass(rule, reason); }
  void Pass(Rule& rule, verdict_reason reason) {
    Add(rule.Count(CounterName(port_.id, reason, false)).Verdict(NF_ACCEPT));
  }
  void Drop(Rule&& rule, verdict_reason reason) { Drop(rule, reason); }
  void Drop(Rule& rule, verdict_reason reason) {
    Add(rule.Count(CounterName(port_.id, reason, port_.monitor)).Verdict(port_.monitor ? NF_ACCEPT : NF_DROP));
  }

  void AddBase() {
    Add(In(base_).Jump(form_));
    Drop(In(base_).LinkIs(kSourceMac, Data(6)), VERDICT_BAD_SOURCE_MAC);
    Drop(In(base_).LoadLink(0, kSourceMac, 1).Mask(0, {1}).Is(0, {1}), VERDICT_BAD_SOURCE_MAC);
    Drop(In(base_).LinkIs(kOuterType, Net16(ETH_P_8021AD)), VERDICT_VLAN);
    Drop(
        In(base_).LinkIs(kOuterType, Net16(ETH_P_8021Q)).LoadLink(0, kTci, 2).Mask(0, Net16(0xfff)).Is(0, Net16(0xfff)),
        VERDICT_VLAN);
    Drop(In(base_).Protocol(ETH_P_8021Q), VERDICT_VLAN);
    Drop(In(base_).Protocol(ETH_P_8021AD), VERDICT_VLAN);
    Add(In(base_).Protocol(ETH_P_IP).Goto(ipv4_));
    Add(In(base_).Protocol(ETH_P_ARP).Goto(arp_));
    Drop(In(base_).Protocol(ETH_P_RARP), VERDICT_ARP);
    if (VERDICT_PERMITS_IPV6(ModeOf(port_)))
      Pass(In(base_).Protocol(ETH_P_IPV6), VERDICT_IPV6_ALL);
    else
      Drop(In(base_).Protocol(ETH_P_IPV6), VERDICT_IPV6);
    Drop(In(base_).ProtocolIn(kEncapsulations), VERDICT_ENCAPSULATED);
    Add(In(base_).Protocol(ETH_P_802_2).Goto(llc_));
    Pass(In(base_), VERDICT_NON_IP);
  }

  /// Returns for every frame that is well formed.
  void AddForm() {
    Add(In(form_).Protocol(ETH_P_IP).Ipv4IsSound().Verdict(NFT_RETURN));
    Drop(In(form_).Protocol(ETH_P_IP), VERDICT_MALFORMED);
    Add(In(form_).Protocol(ETH_P_ARP).NetworkHas(28).NetworkIs(4, {6, 4}).Verdict(NFT_RETURN));
    Drop(In(form_).Protocol(ETH_P_ARP), VERDICT_MALFORMED);
    for (const uint16_t tag : {ETH_P_8021Q, ETH_P_8021AD}) {
      Add(In(form_).Protocol(tag).NetworkHas(4).Verdict(NFT_RETURN));
      Drop(In(form_).Protocol(tag), VERDICT_MALFORMED);
    }
    for (const uint16_t length_field : {ETH_P_802_2, ETH_P_802_3}) Add(In(form_).Protocol(length_field).Goto(length_));
  }

  /// Frames with a length field, in a chain of their own: nft 1.0.6 aborts when it lists a rule that first asks for a
  /// protocol without a description of its headers and then reads from the network header.
  void AddLength() {
    // With a tag, what stands where the length was is not it.
    Drop(In(length_).LoadLink(0, kOuterType, 2).In(0, kTags), VERDICT_MALFORMED);
    Drop(In(length_).LoadLink(0, kOuterType, 2).Compare(0, NFT_CMP_GT, Net16(1500)), VERDICT_MALFORMED);
    Drop(In(length_).LoadLink(0, kOuterType, 2).Compare(0, NFT_CMP_LT, Net16(3)), VERDICT_MALFORMED);
    Add(In(length_).NetworkHas(3).Goto(end_));
    Drop(In(length_), VERDICT_MALFORMED);
    // A length field up to 1500 against the bytes there: a digit decides when all digits before it are equal.
    Add(In(end_).LoadLength(0).Mask(0, Host32(~0xfffU)).Compare(0, NFT_CMP_NEQ, Host32(0)).Verdict(NFT_RETURN));
    Drop(LengthDigits(In(end_), 0xf00).In(0, kLongerDigits), VERDICT_MALFORMED);
    Add(LengthDigits(In(end_), 0xf00).NotIn(0, kSameDigits).Verdict(NFT_RETURN));
    Drop(LengthDigits(In(end_), 0x0f0).In(0, kLongerDigits), VERDICT_MALFORMED);
    Add(LengthDigits(In(end_), 0x0f0).NotIn(0, kSameDigits).Verdict(NFT_RETURN));
    Drop(LengthDigits(In(end_), 0x00f).In(0, kLongerDigits), VERDICT_MALFORMED);
  }
  /// The same digit of the length field and of the number of bytes after it, into words 0 and 1.
  static Rule LengthDigits(Rule rule, uint16_t mask) {
    rule.LoadLink(0, kOuterType, 2).Mask(0, Net16(mask)).LoadLength(1).Mask(1, Host32(mask));
    return rule;
  }

  enum class Tagged : uint8_t { kNo, kYes };
  /// Port, VLAN and source into the words 0 to 2, and the source MAC into 3 and 4.
  Rule Keys(const std::string& chain, Tagged tagged, uint32_t source_at) const {
    Rule rule{chain};
    if (tagged == Tagged::kYes)
      rule.LinkIs(kOuterType, Net16(ETH_P_8021Q)).LoadLink(1, kTci, 2).Mask(1, Net16(0xfff));
    else
      rule.LinkIsNot(kOuterType, Net16(ETH_P_8021Q)).Load(1, Net16(0));
    rule.Load(0, Host32(port_.id)).LoadNetwork(2, source_at, 4);
    return rule;
  }
  void PassEntries(const std::string& chain, uint32_t source_at) {
    for (const Tagged tagged : {Tagged::kNo, Tagged::kYes}) {
      Pass(Keys(chain, tagged, source_at).In(0, kAnyMac), VERDICT_ENTRY);
      Pass(Keys(chain, tagged, source_at).LoadLink(3, kSourceMac, 6).In(0, kBound), VERDICT_ENTRY);
    }
  }

  /// Drops what comes from 127/8, 224/4 and 240/4.
  void DropMartians(const std::string& chain, uint32_t source_at, verdict_reason reason) {
    Drop(In(chain).NetworkIs(source_at, {127}), reason);
    Drop(In(chain).LoadNetwork(0, source_at, 1).Compare(0, NFT_CMP_GTE, {224}), reason);
  }

  void AddIpv4() {
    Add(In(ipv4_).NetworkIs(12, {0}).Goto(zero_));
    DropMartians(ipv4_, 12, VERDICT_MARTIAN);
    AddDhcp();
    if (VERDICT_PERMITS_IPV4(ModeOf(port_))) return Pass(In(ipv4_), VERDICT_IPV4_ALL);
    PassEntries(ipv4_, 12);
    for (const Tagged tagged : {Tagged::kNo, Tagged::kYes})
      Drop(Keys(ipv4_, tagged, 12).In(0, kBoundKeys), VERDICT_MAC_MISMATCH);
    Drop(In(ipv4_), VERDICT_NO_ENTRY);
  }

  /// Sources in 0/8: only the request of a DHCP client on this link passes.
  void AddDhcp() {
    Add(In(zero_)
            .NetworkIs(12, {0, 0, 0, 0, 255, 255, 255, 255})
            .NetworkIs(9, {17})
            .LoadNetwork(0, 6, 2)
            .Mask(0, Net16(0x3fff))
            .Is(0, Net16(0))
            .LoadNetwork(0, 0, 1)
            .Mask(0, {0x0f})
            .LoadNetwork(1, 2, 2)
            .NotIn(0, kNoRoomForDhcp)
            .TransportIs(0, {0, 68, 0, 67})
            .TransportIs(8, {1})       // a request
            .TransportIs(10, {6})      // a hardware address of six bytes
            .TransportIs(32, Data(4))  // no relay's address
            .Goto(dhcp_));
    Drop(In(zero_), VERDICT_MARTIAN);
    if (VERDICT_PERMITS_IPV4(ModeOf(port_))) return Pass(In(dhcp_), VERDICT_IPV4_ALL);
    Rule equal{dhcp_};
    for (uint32_t byte = 0; byte < 6; ++byte)
      equal.LoadLink(0, kSourceMac + byte, 1).LoadTransport(1, 36 + byte, 1).In(0, kSameBytes);
    Pass(equal, VERDICT_DHCP);
    Drop(In(dhcp_), VERDICT_DHCP_MAC);
  }

  void AddArp() {
    Drop(In(arp_).LoadNetwork(0, 0, 4).Compare(0, NFT_CMP_NEQ, {0, 1, 8, 0}), VERDICT_ARP);
    // No rule compares two fields of a frame; pairs of equal bytes are looked up instead.
    Rule equal{arp_};
    for (uint32_t byte = 0; byte < 6; ++byte)
      equal.LoadLink(0, kSourceMac + byte, 1).LoadNetwork(1, 8 + byte, 1).In(0, kSameBytes);
    Add(equal.Goto(sender_));
    Drop(In(arp_), VERDICT_ARP_MAC);
  }

  void AddSender() {
    Pass(In(sender_).NetworkIs(14, Data(4)).NetworkIs(6, {0, 1}), VERDICT_ARP_PROBE);
    Drop(In(sender_).NetworkIs(14, {0}), VERDICT_ARP);
    DropMartians(sender_, 14, VERDICT_ARP);
    if (VERDICT_PERMITS_IPV4(ModeOf(port_))) return Pass(In(sender_), VERDICT_IPV4_ALL);
    PassEntries(sender_, 14);
    Drop(In(sender_), VERDICT_ARP);
  }

  void AddLlc() {
    for (const uint32_t address : {0U, 1U})
      Drop(In(llc_).LoadNetwork(0, address, 1).Mask(0, {0xfe}).In(0, kIpOverLlc), VERDICT_ENCAPSULATED);
    Pass(In(llc_), VERDICT_NON_IP);
  }

  const PortConfig& port_;
  const std::string base_, form_, ipv4_, arp_, sender_, length_, end_, llc_, zero_, dhcp_;
  std::vector<Rule> rules_;
};

}  // namespace

std::vector<std::string> ChainNames(PortId port) {
  std::vector<std::string> names = {Base(port)};
  for (const char* part : {"form", "ipv4", "arp", "sender", "length", "end", "llc", "zero", "dhcp"})
    names.push_back(names.front() + "." + part);
  return names;
}

std::string CounterName(PortId port, verdict_reason reason, bool monitored) {
  return Base(port) + (monitored ? ".monitored." : ".") + std::string{ReasonName(reason)};
}

std::vector<Rule> PortRules(const PortConfig& port) { return Builder{port}.Make(); }

}  // namespace mgr::nft
