// Feeds bytes as one connection's whole input through the gateway's HTTP transport, the JSON
// protocol, the generated processor and the real handler, as Thrift's connection loop does.
// The first byte sets how many bytes each socket read returns (0: all), so that lines and
// bodies arrive in pieces. Only Thrift's transport and protocol exceptions may end the
// connection; anything else escaping would end the gateway's process, and is a finding here.
#include <stdlib.h>
#include <thrift/Thrift.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/transport/TTransportException.h>
#include <thrift/transport/TVirtualTransport.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "log/simple_log.h"
#include "tasks/TarnGateWayHandler.h"
#include "web/thrift_http_server.h"
#include "web/web_content.h"

namespace {

using apache::thrift::TException;
using apache::thrift::transport::TTransportException;

// The accepted socket: reads come from the input in pieces, writes are counted and dropped.
class fuzz_socket : public apache::thrift::transport::TVirtualTransport<fuzz_socket> {
 public:
  fuzz_socket(const uint8_t* data, size_t size, size_t piece)
      : data_(data), size_(size), piece_(piece) {}

  uint32_t read(uint8_t* buf, uint32_t len) {
    const size_t n = std::min({static_cast<size_t>(len), size_ - at_, piece_});
    if (n > 0) std::memcpy(buf, data_ + at_, n);
    at_ += n;
    return static_cast<uint32_t>(n);
  }
  void write(const uint8_t*, uint32_t len) { written_ += len; }
  bool isOpen() const override { return true; }
  void close() override {}

 private:
  const uint8_t* data_;
  size_t size_;
  size_t piece_;
  size_t at_ = 0;
  size_t written_ = 0;
};

struct service {
  std::shared_ptr<tarn::simple_log> log;
  std::shared_ptr<tarn::TaskWorker> worker;
  std::shared_ptr<TarnWwySrv::TarnGateWayProcessor> processor;
  std::shared_ptr<tarn::thrift_http_server_factory> transports;
};

service* the_service = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});

  std::string root = (std::filesystem::temp_directory_path() / "tarn-fuzz-XXXXXX").string();
  if (::mkdtemp(root.data()) == nullptr) std::abort();
  std::filesystem::create_directories(root + "/sub");
  std::ofstream(root + "/index.html") << "<p>Vantu</p>";
  std::ofstream(root + "/sub/a.css") << "p{}";
  tarn::set_web_root_for_testing(root);

  auto* s = new service;
  s->log = std::make_shared<tarn::simple_log>("Vantu Tarn (version 5.0) GateWay started");
  s->worker = std::make_shared<tarn::TaskWorker>(nullptr);
  // Commands are taken and posted, but do no work: a real task would touch the user's own
  // document store and registry, and could ask a question on a display.
  tarn::task_factory no_work = [](const tarn::command_args&,
                                  const std::shared_ptr<tarn::simple_log>&,
                                  const std::shared_ptr<tarn::DMS_connector_handler>&) {
    return std::unique_ptr<tarn::task>();
  };
  s->processor = std::make_shared<TarnWwySrv::TarnGateWayProcessor>(
      std::make_shared<tarn::TarnGateWayHandler>(s->log, s->worker, no_work));
  auto pages = std::make_shared<tarn::dynamic_uri_handler>();
  pages->add_page("/logs", [log = s->log] { return log->render(); });
  tarn::http_request_limits limits;
  limits.max_body_bytes = 64 * 1024;
  s->transports = std::make_shared<tarn::thrift_http_server_factory>("index.html", pages, limits);
  the_service = s;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = data[0] == 0 ? SIZE_MAX : data[0];
  auto socket = std::make_shared<fuzz_socket>(data + 1, size - 1, piece);
  auto input = the_service->transports->getTransport(socket);
  auto output = the_service->transports->getTransport(socket);
  auto iprot = std::make_shared<apache::thrift::protocol::TJSONProtocol>(input);
  auto oprot = std::make_shared<apache::thrift::protocol::TJSONProtocol>(output);
  // TConnectedClient::run: process until the processor says stop or Thrift throws.
  for (int message = 0; message < 256; ++message) {
    try {
      if (!the_service->processor->process(iprot, oprot, nullptr)) break;
    } catch (const TTransportException&) {
      break;
    } catch (const TException&) {
      break;
    }
    the_service->worker->run_pending();
  }
  return 0;
}
