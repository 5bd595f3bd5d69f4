#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "exit_status.h"
#include "netconf/client.h"
#include "netconf/xml.h"
#include "reply_reader.h"

namespace cli {

/// How the command line reaches the element.
struct Target {
  std::string socket;      ///< of NETCONF
  std::string models_dir;  ///< the YANG modules
  std::chrono::milliseconds limit{};
};

/// Says `text` on standard error, as this program; gives `status` back.
ExitStatus Complain(ExitStatus status, const std::string& text);

/// The <rpc-reply> to one operation, whatever it says; or null, with kUnreachable, after complaining that there is
/// none.
struct Answer {
  ExitStatus status = kDone;
  std::unique_ptr<netconf::XmlDocument> reply;
};
Answer Ask(const Target& target, const std::string& operation, netconf::Client::SendProgress progress = nullptr);

/// Hands the <data> of the reply to `operation` to `reader` while it arrives. Not kDone after complaining about what
/// the element answered instead; then OnComplete() is not called.
ExitStatus AskForData(const Target& target, const std::string& operation, DataReader& reader);

/// The <data> of the reply to `operation` (<get>, <get-config>). Null, with the status, after complaining about what
/// the element answered instead; warnings are said and do no harm.
struct Data {
  ExitStatus status = kDone;
  std::unique_ptr<netconf::XmlDocument> reply;
  const netconf::XmlElement* data = nullptr;  ///< in the reply
};
Data AskForData(const Target& target, const std::string& operation);

}  // namespace cli
