# Sourced by the test scripts: configures a build folder of its own for one sanitizer, with the
# tests and without the benchmarks.
# configure_sanitized DIR CMAKE_OPTION FLAGS
configure_sanitized() {
  local generator=()
  if command -v ninja >/dev/null; then generator=(-G Ninja); fi
  cmake -S . -B "$1" "${generator[@]}" "-D$2=ON" -DTARN_BUILD_TESTS=ON -DTARN_BUILD_BENCH=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_FLAGS_RELWITHDEBINFO="$3" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$3"
}
