# The local document store against plain file copies of the same documents.
add_executable(dms_store_bench ${CMAKE_CURRENT_LIST_DIR}/dms_store_bench.cpp)
set_target_properties(dms_store_bench PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
target_link_libraries(dms_store_bench PRIVATE tarn_dms_store ${CMAKE_DL_LIBS} CLI11::CLI11)
target_compile_definitions(dms_store_bench PRIVATE TARN_DIST_DIR="${TARN_DIST_DIR}")
add_dependencies(dms_store_bench dms_local)
