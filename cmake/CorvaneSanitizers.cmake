# One sanitizer build per build folder, for every target of the project.
if(CORVANE_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(CORVANE_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(NOT CORVANE_SANITIZE STREQUAL "")
  message(FATAL_ERROR "CORVANE_SANITIZE must be '', 'thread' or 'address', not '${CORVANE_SANITIZE}'")
endif()

# The fuzzers' build instruments every target for libFuzzer's coverage feedback, the library
# included; fuzz/CMakeLists.txt links the fuzzer programs with libFuzzer itself.
if(CORVANE_BUILD_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
