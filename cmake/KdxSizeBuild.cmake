# The build for size, used for the device (the armhf preset) and the Debian
# packages: code optimised for size (-Os), every function and datum in a
# section of its own so that the linker drops what nothing references
# (--gc-sections), and the shipped programs and library optimised across
# translation units at link time (LTO). Exceptions and unwind tables are left
# as they are: the standard library reports failures through them.
#
# A link-time optimised link is slow, so only the shipped binaries are linked
# that way. The libraries inside them are compiled into "fat" LTO objects,
# which hold both the optimiser's intermediate form (read by the shipped
# links) and ordinary machine code (used by the test programs and everything
# else, which link as usual).
option(KDX_SIZE_BUILD "Build for size: -Os, section garbage collection, link-time optimised shipped binaries" OFF)

set(kdxLtoCompileOptions -flto=auto -ffat-lto-objects)
# The link-time optimiser takes its optimisation level from the link command,
# which also carries the build type's: -Os comes last and wins.
set(kdxLtoLinkOptions -flto=auto -Os)

# -Os, sections and their collection for every target of the project's own
# folders; called after GoogleTest has been added, which keeps its own flags.
# -Os comes after the build type's optimisation level and so replaces it.
function(kdx_size_build_options)
  if(NOT KDX_SIZE_BUILD)
    return()
  endif()
  add_compile_options(-Os -ffunction-sections -fdata-sections)
  # No run-time type information: nothing asks for a type by name, and the
  # names of the callable types behind every std::function cost kilobytes.
  # Exceptions keep the type information they need to be caught.
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)
  add_link_options(LINKER:--gc-sections)
  # Archives of LTO objects need the compiler's archiver wrapper, which gives
  # the linker an index of the intermediate form's symbols too.
  foreach(lang C CXX)
    if(CMAKE_${lang}_COMPILER_AR)
      set(CMAKE_${lang}_ARCHIVE_CREATE "\"${CMAKE_${lang}_COMPILER_AR}\" qc <TARGET> <LINK_FLAGS> <OBJECTS>"
        PARENT_SCOPE)
      set(CMAKE_${lang}_ARCHIVE_FINISH "\"${CMAKE_${lang}_COMPILER_RANLIB}\" <TARGET>" PARENT_SCOPE)
    endif()
  endforeach()
endfunction()

# kdx_size_shipped(LIBRARIES <targets...> BINARIES <targets...>
#                  [WITHOUT_EXCEPTIONS <targets...>])
# The static libraries that go into shipped binaries are compiled into fat
# LTO objects; the shipped binaries (and the programs that measure them) are
# compiled and linked with LTO. Nothing happens unless KDX_SIZE_BUILD is on.
#
# WITHOUT_EXCEPTIONS names code that catches no exception: the tools built on
# the client core. An exception that nothing catches ends a program through
# std::terminate before any frame is unwound, so their landing pads and
# unwind tables never run; compiled without them they end the same way on an
# exception from the C++ library (memory exhausted, a thread that cannot
# start), and are about a fifth smaller. The libraries of the interactive
# client keep theirs (see above).
function(kdx_size_shipped)
  cmake_parse_arguments(ARG "" "" "LIBRARIES;BINARIES;WITHOUT_EXCEPTIONS" ${ARGN})
  if(NOT KDX_SIZE_BUILD)
    return()
  endif()
  foreach(target ${ARG_LIBRARIES} ${ARG_BINARIES})
    target_compile_options(${target} PRIVATE ${kdxLtoCompileOptions})
  endforeach()
  foreach(target ${ARG_WITHOUT_EXCEPTIONS})
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions>)
  endforeach()
  foreach(target ${ARG_BINARIES})
    target_link_options(${target} PRIVATE ${kdxLtoLinkOptions})
  endforeach()
endfunction()
