# XPS conversion and the conversion assistant. They build their inputs with the tests' support
# library, so they exist only in a build with tests.
if(TARGET tarn_test_conversion)
  add_executable(xps_bench ${CMAKE_CURRENT_LIST_DIR}/xps_bench.cpp)
  target_link_libraries(xps_bench PRIVATE tarn_convutils tarn_test_conversion)
  add_dependencies(xps_bench tarnimage)

  add_executable(tarnassist_bench ${CMAKE_CURRENT_LIST_DIR}/tarnassist_bench.cpp)
  target_link_libraries(tarnassist_bench PRIVATE tarn_platform tarn_test_conversion)
  add_dependencies(tarnassist_bench tarnassist)
  set_target_properties(xps_bench tarnassist_bench PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
endif()
