# Mixed traffic against the real gateway for minutes: its memory, descriptors and threads over
# time (see the header of soak_bench.cpp).
add_executable(soak_bench ${CMAKE_CURRENT_LIST_DIR}/soak_bench.cpp)
set_target_properties(soak_bench PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
target_link_libraries(soak_bench PRIVATE tarn_rpc tarn_platform CLI11::CLI11)
target_compile_definitions(soak_bench PRIVATE TARN_DIST_DIR="${TARN_DIST_DIR}")
add_dependencies(soak_bench tarngateway tarn_www tarnctl tarnassist Telemetry dms_local pdf_attach
                 tarnimage tarnprint)
