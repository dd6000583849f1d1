# Flags of the product's own code, and how a layer becomes a library.
# cfgmgr_layer(NAME SOURCES... [LINK libs...]): a static library of program code.
# cfgmgr_program(NAME SOURCES... [LINK libs...]): a program.

set(CFGMGR_WARNINGS -Wall -Wextra -Werror -Wshadow -Wconversion -Wno-sign-conversion -Wcast-qual -Wformat=2
  -Wmissing-declarations -Wnon-virtual-dtor -Wundef -Wvla)
# g++ 12 sees overlaps in joined std::string texts that are not there (GCC bug 105329).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-restrict)
endif()
set(CFGMGR_CODE_OPTIONS ${CFGMGR_WARNINGS} -fno-exceptions -fno-rtti)

if(CFGMGR_SANITIZE)
  # The check of virtual tables reads type information, which program code has none of and tests have.
  add_compile_options(-fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=undefined
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

function(cfgmgr_layer name)
  cmake_parse_arguments(arg "" "" "LINK" ${ARGN})
  add_library(${name} STATIC ${arg_UNPARSED_ARGUMENTS})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/gen)
  target_compile_options(${name} PRIVATE ${CFGMGR_CODE_OPTIONS})
  target_link_libraries(${name} PUBLIC ${arg_LINK})
endfunction()

function(cfgmgr_program name)
  cmake_parse_arguments(arg "" "" "LINK" ${ARGN})
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/gen)
  target_compile_options(${name} PRIVATE ${CFGMGR_CODE_OPTIONS})
  target_link_libraries(${name} PRIVATE ${arg_LINK})
endfunction()
