# tarnprint against cold soffice runs: see the header of tarnprint_bench.cpp.
add_executable(tarnprint_bench ${CMAKE_CURRENT_LIST_DIR}/tarnprint_bench.cpp)
set_target_properties(tarnprint_bench PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
target_link_libraries(tarnprint_bench PRIVATE tarnprint_lib Qt6::Gui CLI11::CLI11)
target_compile_definitions(tarnprint_bench PRIVATE TARN_DIST_DIR="${TARN_DIST_DIR}")
add_dependencies(tarnprint_bench tarnprint tarnoffice tarnassist)
