// tarnctl call get_version | send_command: calls the running gateway the way the browser
// client does, with Thrift's own HTTP client and JSON protocol, e.g.
//   tarnctl call send_command --cmd CREATE_PDF --connection C --location L 1234 5678
#include <thrift/TApplicationException.h>
#include <thrift/Thrift.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/protocol/TProtocolException.h>
#include <thrift/transport/THttpClient.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TTransportException.h>

#include <charconv>
#include <cmath>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "TarnGateWay.h"
#include "tarnctl_commands.h"

namespace tarn {
namespace {

using apache::thrift::TApplicationException;
using apache::thrift::protocol::TProtocolException;
using apache::thrift::transport::TTransportException;

struct call_options {
  std::string host = "localhost";
  int port = 9090;
  double timeout_seconds = 30;
  std::string cmd;
  std::string connection;
  std::string location;
  std::vector<std::string> doc_refs;
};

// CREATE_PDF, CONVERT_WITH_ASSISTANT or any 32-bit number (the gateway ignores unknown ones).
std::optional<int32_t> command_value(const std::string& text) {
  if (text == "CREATE_PDF") return TarnWwySrv::command_type::CREATE_PDF;
  if (text == "CONVERT_WITH_ASSISTANT") return TarnWwySrv::command_type::CONVERT_WITH_ASSISTANT;
  int32_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Connects, runs `call` and reports any failure on one line naming the gateway's address.
int with_client(const call_options& options,
                const std::function<void(TarnWwySrv::TarnGateWayClient&)>& call) {
  // The library would print its own socket errors; ours below say it once, plainly.
  apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});
  const std::string where = options.host + ":" + std::to_string(options.port);
  auto socket = std::make_shared<apache::thrift::transport::TSocket>(options.host, options.port);
  const int timeout_ms = static_cast<int>(std::lround(options.timeout_seconds * 1000));
  socket->setConnTimeout(timeout_ms);
  socket->setRecvTimeout(timeout_ms);
  socket->setSendTimeout(timeout_ms);
  auto http = std::make_shared<apache::thrift::transport::THttpClient>(socket, options.host, "/");
  TarnWwySrv::TarnGateWayClient client(
      std::make_shared<apache::thrift::protocol::TJSONProtocol>(http));
  try {
    http->open();
  } catch (const TTransportException& e) {
    std::cerr << "tarnctl call: can't connect to the gateway at " << where << ": " << e.what()
              << "\n";
    return kExitFailed;
  }
  try {
    call(client);
  } catch (const TTransportException& e) {
    if (e.getType() == TTransportException::TIMED_OUT) {
      std::cerr << "tarnctl call: no answer from " << where << " within " << options.timeout_seconds
                << " s\n";
    } else {
      std::cerr << "tarnctl call: the gateway at " << where
                << " ended the connection without an answer: " << e.what() << "\n";
    }
    return kExitFailed;
  } catch (const TApplicationException& e) {
    std::cerr << "tarnctl call: the gateway at " << where << " refused the call: " << e.what()
              << "\n";
    return kExitFailed;
  } catch (const TProtocolException& e) {
    std::cerr << "tarnctl call: the answer from " << where
              << " isn't a Thrift JSON message: " << e.what() << "\n";
    return kExitFailed;
  }
  http->close();
  return kExitOk;
}

}  // namespace

void add_call_command(CLI::App& app, int* exit_code) {
  auto options = std::make_shared<call_options>();
  auto* call = app.add_subcommand(
      "call", "Call the running gateway's service over HTTP and JSON, as the browser client does.");
  call->fallthrough();
  call->require_subcommand(1);
  call->add_option("--host", options->host, "The gateway's host")->capture_default_str();
  call->add_option("--port", options->port, "The gateway's port")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  call->add_option("--timeout", options->timeout_seconds,
                   "Seconds to wait for the connection and for the answer")
      ->check(CLI::Range(0.001, 86400.0))
      ->capture_default_str();

  auto* version = call->add_subcommand("get_version", "Print the gateway's version text.");
  version->callback([options, exit_code] {
    *exit_code = with_client(*options, [](TarnWwySrv::TarnGateWayClient& client) {
      std::string text;
      client.get_version(text);
      std::cout << text << "\n";
    });
  });

  auto* send = call->add_subcommand(
      "send_command",
      "Hand a command to the gateway. It answers as soon as it has read the command and does the "
      "work on its own: the results show in the document store and in its log.");
  send->add_option("--cmd", options->cmd, "CREATE_PDF, CONVERT_WITH_ASSISTANT or a number")
      ->required()
      ->check([](const std::string& text) {
        return command_value(text) ? std::string()
                                   : "'" + text +
                                         "' is neither CREATE_PDF, CONVERT_WITH_ASSISTANT nor a "
                                         "32-bit number";
      });
  send->add_option("--connection", options->connection,
                   "The document store connection, passed on unchanged");
  send->add_option("--location", options->location,
                   "The document store location, passed on unchanged");
  send->add_option("doc_refs", options->doc_refs, "References of the documents");
  send->callback([options, exit_code] {
    const int32_t cmd = *command_value(options->cmd);
    const std::set<std::string> refs(options->doc_refs.begin(), options->doc_refs.end());
    *exit_code = with_client(*options, [&](TarnWwySrv::TarnGateWayClient& client) {
      client.send_command(static_cast<TarnWwySrv::command_type::type>(cmd), options->connection,
                          options->location, refs);
      std::cout << "The gateway took " << options->cmd << " with " << refs.size()
                << " document(s).\n";
    });
  });
}

}  // namespace tarn
