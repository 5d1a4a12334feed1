// get_version over keep-alive HTTP + JSON: the gateway's transport against Thrift's stock
// THttpServer, both on a TThreadedServer in this process with the same handler, at 1, 8 and
// 64 concurrent clients (Thrift's THttpClient, one connection each). Runs alternate between
// the two servers; the median of the runs is printed, with the ratio ours / stock and the
// latency percentiles of the median run.
// CPU time per call (stock/ours, clients included) is printed too: on a busy machine it
// varies less than the rates.
//   rpc_bench [SECONDS_PER_RUN] [RUNS]
#include <sys/resource.h>
#include <thrift/Thrift.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/transport/THttpClient.h>
#include <thrift/transport/THttpServer.h>
#include <thrift/transport/TSocket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log/simple_log.h"
#include "tasks/TarnGateWayHandler.h"
#include "web/in_process_server.h"
#include "web/thrift_http_server.h"

namespace {

using clock_type = std::chrono::steady_clock;

struct run_result {
  double calls_per_second = 0;
  double p50_us = 0;
  double p99_us = 0;
  double cpu_us_per_call = 0;  // the whole process: clients and server together
};

double cpu_seconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

run_result run_clients(int port, int clients, std::chrono::milliseconds duration) {
  std::atomic<bool> stop{false};
  std::latch connected(clients + 1);
  std::vector<std::vector<float>> latencies(clients);
  std::vector<std::thread> threads;
  for (int i = 0; i < clients; ++i) {
    threads.emplace_back([&, i] {
      auto socket = std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", port);
      auto http =
          std::make_shared<apache::thrift::transport::THttpClient>(socket, "127.0.0.1", "/");
      TarnWwySrv::TarnGateWayClient client(
          std::make_shared<apache::thrift::protocol::TJSONProtocol>(http));
      http->open();
      std::string version;
      client.get_version(version);  // the connection is up and warm
      latencies[i].reserve(1 << 20);
      connected.arrive_and_wait();
      while (!stop.load(std::memory_order_relaxed)) {
        const auto start = clock_type::now();
        client.get_version(version);
        latencies[i].push_back(
            std::chrono::duration<float, std::micro>(clock_type::now() - start).count());
      }
      http->close();
    });
  }
  connected.arrive_and_wait();
  const auto start = clock_type::now();
  const double cpu_start = cpu_seconds();
  std::this_thread::sleep_for(duration);  // the measuring window, not synchronisation
  stop = true;
  for (auto& t : threads) t.join();
  const double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
  const double cpu = cpu_seconds() - cpu_start;

  std::vector<float> all;
  for (const auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
  std::sort(all.begin(), all.end());
  run_result r;
  r.calls_per_second = static_cast<double>(all.size()) / seconds;
  r.cpu_us_per_call = all.empty() ? 0 : cpu * 1e6 / static_cast<double>(all.size());
  if (!all.empty()) {
    r.p50_us = all[all.size() / 2];
    r.p99_us = all[std::min(all.size() - 1, all.size() * 99 / 100)];
  }
  return r;
}

double median_cpu(const std::vector<run_result>& runs) {
  std::vector<double> cpu;
  for (const auto& r : runs) cpu.push_back(r.cpu_us_per_call);
  std::sort(cpu.begin(), cpu.end());
  return cpu[cpu.size() / 2];
}

run_result median(std::vector<run_result> runs) {
  std::sort(runs.begin(), runs.end(), [](const run_result& a, const run_result& b) {
    return a.calls_per_second < b.calls_per_second;
  });
  return runs[runs.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 1.0;
  const int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 7;
  if (seconds <= 0) {
    std::fprintf(stderr, "usage: rpc_bench [SECONDS_PER_RUN > 0] [RUNS]\n");
    return 2;
  }
  apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});
  const auto window = std::chrono::milliseconds(static_cast<long>(seconds * 1000));

  auto log = std::make_shared<tarn::simple_log>("Vantu Tarn (version 5.0) GateWay started");
  auto handler =
      std::make_shared<tarn::TarnGateWayHandler>(log, std::make_shared<tarn::TaskWorker>(nullptr));
  tarn::test::in_process_server stock(
      std::make_shared<apache::thrift::transport::THttpServerTransportFactory>(), handler);
  tarn::test::in_process_server ours(
      std::make_shared<tarn::thrift_http_server_factory>(
          "index.html", std::make_shared<tarn::dynamic_uri_handler>()),
      handler);

  std::printf("%-24s %13s %13s %6s %17s %17s %14s\n", "case", "stock calls/s", "ours calls/s",
              "ratio", "stock p50/p99 us", "ours p50/p99 us", "cpu us/call");
  for (int clients : {1, 8, 64}) {
    run_clients(stock.port(), clients, window / 4);  // warm-up
    run_clients(ours.port(), clients, window / 4);
    std::vector<run_result> stock_runs, our_runs;
    for (int i = 0; i < runs; ++i) {
      stock_runs.push_back(run_clients(stock.port(), clients, window));
      our_runs.push_back(run_clients(ours.port(), clients, window));
    }
    const run_result s = median(stock_runs);
    const run_result o = median(our_runs);
    const std::string label =
        "get_version, " + std::to_string(clients) + " client" + (clients == 1 ? "" : "s");
    std::printf("%-24s %13.0f %13.0f %6.3f %8.0f/%-8.0f %8.0f/%-8.0f %6.1f/%-6.1f\n", label.c_str(),
                s.calls_per_second, o.calls_per_second, o.calls_per_second / s.calls_per_second,
                s.p50_us, s.p99_us, o.p50_us, o.p99_us, median_cpu(stock_runs),
                median_cpu(our_runs));
    std::fflush(stdout);
  }
  return 0;
}
