# vesk_target(NAME): what every target of this project is built with.
function(vesk_target name)
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  # Not -Wformat-signedness: some log texts print unsigned values with signed conversions by design.
  target_compile_options(${name} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2)
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    target_compile_options(${name} PRIVATE -Wthread-safety)
  endif()
  if(VESK_WERROR)
    target_compile_options(${name} PRIVATE -Werror)
  endif()
  if(VESK_SANITIZE)
    target_compile_options(${name} PRIVATE
      -fsanitize=${VESK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${name} PRIVATE -fsanitize=${VESK_SANITIZE})
  endif()
  if(VESK_COVERAGE)
    target_compile_options(${name} PRIVATE -fprofile-instr-generate -fcoverage-mapping)
    target_link_options(${name} PRIVATE -fprofile-instr-generate)
  endif()
endfunction()
