# Start-up time and idle memory of tarngateway against a stock Thrift HTTP server (a mode of
# startup_bench, which doesn't load Qt) and a bare QApplication (startup_bench_qt).
add_executable(startup_bench ${CMAKE_CURRENT_LIST_DIR}/startup_bench.cpp)
add_executable(startup_bench_qt ${CMAKE_CURRENT_LIST_DIR}/startup_bench_qt.cpp)
set_target_properties(startup_bench startup_bench_qt PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
target_link_libraries(startup_bench PRIVATE tarn_rpc Threads::Threads)
target_link_libraries(startup_bench_qt PRIVATE Qt6::Widgets)
target_compile_definitions(startup_bench PRIVATE TARN_DIST_DIR="${TARN_DIST_DIR}")
add_dependencies(startup_bench startup_bench_qt tarngateway tarn_www)
