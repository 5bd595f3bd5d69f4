#include "dataplane/nft/rule_text.h"

#include <libnftnl/expr.h>
#include <linux/netfilter/nf_tables.h>

#include <array>
#include <charconv>
#include <string_view>

namespace mgr::nft {
namespace {

/// A word that begins one of the four old registers of 16 bytes has two numbers; the kernel gives back the older one.
std::string WithOldRegisters(std::string_view text) {
  constexpr std::string_view kRegister = "reg ";
  std::string result;
  for (size_t at = text.find(kRegister); at != std::string_view::npos; at = text.find(kRegister)) {
    result.append(text.substr(0, at + kRegister.size()));
    text.remove_prefix(at + kRegister.size());
    unsigned number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(parsed.ptr - text.data()));
    const bool has_old = number >= NFT_REG32_00 && number <= NFT_REG32_15 && (number - NFT_REG32_00) % 4 == 0;
    result.append(std::to_string(has_old ? NFT_REG_1 + (number - NFT_REG32_00) / 4 : number));
  }
  return result.append(text);
}

}  // namespace

std::string TextOf(nftnl_rule* rule) {
  std::string text;
  const auto append = [](nftnl_expr* expression, void* data) {
    std::array<char, 512> buffer{};
    nftnl_expr_snprintf(buffer.data(), buffer.size(), expression, NFTNL_OUTPUT_DEFAULT, 0);
    auto& into = *static_cast<std::string*>(data);
    into.append("[")
        .append(nftnl_expr_get_str(expression, NFTNL_EXPR_NAME))
        .append(" ")
        .append(buffer.data())
        .append("]");
    return 0;
  };
  nftnl_expr_foreach(rule, append, &text);
  return WithOldRegisters(text);
}

}  // namespace mgr::nft
