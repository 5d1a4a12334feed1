# CREATE_PDF through the whole product against soffice + qpdf: see the header of
# create_pdf_bench.cpp. It builds on the tests' support library, so it exists only in a build
# with tests.
if(TARGET tarn_test_conversion)
  add_executable(create_pdf_bench ${CMAKE_CURRENT_LIST_DIR}/create_pdf_bench.cpp)
  set_target_properties(create_pdf_bench PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
  target_link_libraries(create_pdf_bench PRIVATE tarn_rpc tarn_platform tarn_test_conversion
                        nlohmann_json::nlohmann_json CLI11::CLI11)
  add_dependencies(create_pdf_bench tarngateway tarn_www tarnctl tarnprint tarnoffice tarnask
                   Telemetry dms_local pdf_attach)
endif()
