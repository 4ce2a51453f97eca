# Sanitizer builds: flags go on every target, GoogleTest included, so that the
# instrumented code and the test framework agree.
if(KDX_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(KDX_SANITIZE STREQUAL "thread")
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    message(FATAL_ERROR "ThreadSanitizer exists for 64-bit targets only; test 32-bit builds without it")
  endif()
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(KDX_SANITIZE STREQUAL "fuzzer")
  # The fuzz build (clang): everything instrumented for libFuzzer's coverage
  # feedback and checked by ASan+UBSan; the fuzz targets alone link the
  # libFuzzer engine with -fsanitize=fuzzer.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(NOT KDX_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KDX_SANITIZE must be empty, 'address', 'thread' or 'fuzzer', not '${KDX_SANITIZE}'")
endif()
