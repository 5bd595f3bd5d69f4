#include "dataplane/nft/comparison.h"

#include <linux/netfilter/nf_tables.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "dataplane/nft/layout.h"
#include "dataplane/nft/port_rules.h"
#include "dataplane/nft/rule_text.h"

namespace mgr::nft {
namespace {

constexpr std::array<const char*, 4> kOwnSets = {kPorts, kAnyMac, kBound, kBoundKeys};

size_t SetCount() { return kOwnSets.size() + FixedSets().size(); }
std::string SetName(size_t set) {
  return set < kOwnSets.size() ? kOwnSets.at(set) : FixedSets().at(set - kOwnSets.size()).name;
}

/// The key of an element is shorter than the kernel's words; what is beyond it is zero.
bool SameKey(const Data& kernel, const Data& expected) {
  return kernel.size() >= expected.size() && std::equal(expected.begin(), expected.end(), kernel.begin());
}

}  // namespace

Comparison::Outcome Comparison::Next(Clock::time_point limit) {
  do {
    Difference difference;
    if (part_ == Part::kChains) {
      difference = CompareChains();
      part_ = Part::kRules;
      next_port_ = 0;
    } else if (part_ == Part::kRules) {
      const auto port = expected_.ports().lower_bound(next_port_);
      if (port == expected_.ports().end()) {
        part_ = Part::kFirstSet;
        set_ = 0;
        dumping_ = false;
        continue;
      }
      next_port_ = port->first + 1;
      difference = CompareRules(port->second);
    } else {
      bool complete = false;
      difference = CompareElements(&complete);
      if (complete && ++set_ == SetCount() && !difference) {
        Restart();
        return {.result = Result::kSame};
      }
    }
    if (difference) {
      Restart();
      return {.result = Result::kDifferent, .difference = *difference};
    }
  } while (Clock::now() < limit);
  return {};
}

Comparison::Difference Comparison::CompareChains() const {
  const auto flags = expected_.table().Flags();
  if (!flags.ok()) return flags.error().Text();
  if (!flags.value()) return "the table is missing";
  if ((*flags.value() & NFT_TABLE_F_DORMANT) != 0) return "the table is dormant";
  auto forms = expected_.table().ChainForms();
  if (!forms.ok()) return forms.error().Text();
  auto& chains = forms.value();
  for (const auto& [id, port] : expected_.ports()) {
    const std::vector<std::string> names = ChainNames(id);
    for (const std::string& name : names) {
      const bool base = name == names.front();
      const auto chain = chains.find(name);
      if (chain == chains.end()) {
        // The kernel itself removes the chain of an interface that vanishes.
        if (expected_.HasRules(id) && (!base || if_nametoindex(port.name.c_str()) != 0))
          return "chain " + name + " is missing";
        continue;
      }
      if (base && !expected_.HasRules(id)) return "chain " + name + " should not exist";
      if (chain->second != Table::FormOf(base ? port.name : "")) return "chain " + name + " is " + chain->second;
      chains.erase(chain);
    }
  }
  if (expected_.blind()) chains.erase(kBlind);
  if (!chains.empty()) return "chain " + chains.begin()->first + " should not exist";
  return std::nullopt;
}

Comparison::Difference Comparison::CompareRules(const PortConfig& port) const {
  if (!expected_.HasRules(port.id)) return std::nullopt;
  std::map<std::string, std::vector<std::string>> expected;
  for (const Rule& rule : PortRules(port)) expected[rule.chain()].push_back(TextOf(rule.get()));
  for (const std::string& chain : ChainNames(port.id)) {
    const auto texts = expected_.table().RuleTexts(chain);
    if (!texts.ok()) return texts.error().Text();
    if (texts.value().empty() && if_nametoindex(port.name.c_str()) == 0) continue;  // gone with its interface
    if (texts.value() != expected[chain]) return "the rules of chain " + chain + " are others";
  }
  return std::nullopt;
}

Comparison::Difference Comparison::CompareElements(bool* complete) {
  const std::string name = SetName(set_);
  const auto failed = [&name](int error) { return "set " + name + ": " + std::strerror(error); };
  if (!dumping_) {
    if (const int error = expected_.table().StartElements(socket_, name); error != 0) return failed(error);
    dumping_ = true;
    seen_ = 0;
  }
  bool foreign = false;
  const int error = Table::ContinueElements(socket_, [&](const Element& element) {
    ++seen_;
    foreign = foreign || !IsExpected(element);
  });
  if (foreign) return "set " + name + " has an element that should not exist";
  if (error == EINPROGRESS) return std::nullopt;
  dumping_ = false;
  if (error == EINTR) return std::nullopt;  // changed on the way: the set is read again
  if (error != 0) return failed(error);
  *complete = true;
  if (seen_ != ExpectedSize())
    return "set " + name + " has " + std::to_string(seen_) + " elements, not " + std::to_string(ExpectedSize());
  return std::nullopt;
}

bool Comparison::IsExpected(const Element& element) const {
  if (set_ >= kOwnSets.size()) {
    const auto& fixed = FixedSets().at(set_ - kOwnSets.size()).elements;
    return std::any_of(fixed.begin(), fixed.end(),
                       [&element](const Element& one) { return SameKey(element.key, one.key); });
  }
  const std::string name = kOwnSets.at(set_);
  if (name == kPorts) {
    const auto& ports = expected_.ports();
    return std::any_of(ports.begin(), ports.end(), [&element](const auto& port) {
      const Element record = RecordElement(port.second);
      return SameKey(element.key, record.key) && element.user_data == record.user_data;
    });
  }
  const std::optional<Entry> entry = EntryOf(element);
  if (!entry) return false;
  const auto known = expected_.entries().all().find(entry->key);
  if (known == expected_.entries().all().end()) return false;
  if (name == kBound) return known->second == entry->mac;
  return (known->second == MacAddress{}) == (name == kAnyMac);
}

size_t Comparison::ExpectedSize() const {
  if (set_ >= kOwnSets.size()) return FixedSets().at(set_ - kOwnSets.size()).elements.size();
  if (kOwnSets.at(set_) == kPorts) return expected_.ports().size();
  const bool bound = kOwnSets.at(set_) != kAnyMac;
  const auto& entries = expected_.entries().all();
  return static_cast<size_t>(std::count_if(
      entries.begin(), entries.end(), [bound](const auto& entry) { return (entry.second != MacAddress{}) == bound; }));
}

}  // namespace mgr::nft
