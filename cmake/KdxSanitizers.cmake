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
elseif(NOT KDX_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KDX_SANITIZE must be empty, 'address' or 'thread', not '${KDX_SANITIZE}'")
endif()
