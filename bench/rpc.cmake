# get_version throughput and latency: the gateway's HTTP transport against Thrift's stock one.
add_executable(rpc_bench ${CMAKE_CURRENT_LIST_DIR}/rpc_bench.cpp)
set_target_properties(rpc_bench PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
target_include_directories(rpc_bench PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_link_libraries(rpc_bench PRIVATE tarn_web tarn_tasks)
