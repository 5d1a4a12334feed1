# Joining PDFs through attach_handler and pdf_attach.so against the qpdf command.
add_executable(attach_bench ${CMAKE_CURRENT_LIST_DIR}/attach_bench.cpp)
set_target_properties(attach_bench PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
target_compile_definitions(attach_bench PRIVATE POINTERHOLDER_TRANSITION=4
                           TARN_DIST_DIR="${TARN_DIST_DIR}")
target_link_libraries(attach_bench PRIVATE tarn_dms qpdf::libqpdf CLI11::CLI11)
add_dependencies(attach_bench pdf_attach)
