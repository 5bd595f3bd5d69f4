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

/// Writes `text` to standard error, after the program's name; returns `status`.
ExitStatus Complain(ExitStatus status, const std::string& text);

/// The <rpc-reply> to one operation, whatever it says; or null with kUnreachable, after complaining about the failure.
struct Answer {
  ExitStatus status = kDone;
  std::unique_ptr<netconf::XmlDocument> reply;
};
Answer Ask(const Target& target, const std::string& operation, netconf::Client::SendProgress progress = nullptr);

/// Hands the <data> of the reply to `operation` to `reader` while it arrives. Not kDone after complaining about what
/// the element answered instead; then OnComplete() is not called.
ExitStatus AskForData(const Target& target, const std::string& operation, DataReader& reader);

/// The <data> of the reply to `operation` (<get>, <get-config>). Null, with the status, after complaining about what
/// the element answered instead. Warnings are printed, but do not fail the command.
struct Data {
  ExitStatus status = kDone;
  std::unique_ptr<netconf::XmlDocument> reply;
  const netconf::XmlElement* data = nullptr;  ///< in the reply
};
Data AskForData(const Target& target, const std::string& operation);

}  // namespace cli
