# dorvane_keep_symbols(TARGET): a release program without debug information.
# After linking, the program's debug information and symbols go to
# <build>/symbols/<file>.debug and the program keeps only a link to that file
# (.gnu_debuglink), so that an address from a crash in the field can still be
# resolved: x86_64-w64-mingw32-addr2line -f -C -e build/symbols/dorvane.exe.debug 0x1400019c0
set(DORVANE_SYMBOLS_DIR ${CMAKE_BINARY_DIR}/symbols)
file(MAKE_DIRECTORY ${DORVANE_SYMBOLS_DIR})

function(dorvane_keep_symbols target)
  set(debug ${DORVANE_SYMBOLS_DIR}/$<TARGET_FILE_NAME:${target}>.debug)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> ${debug}
    COMMAND ${CMAKE_OBJCOPY} --strip-all --add-gnu-debuglink=${debug} $<TARGET_FILE:${target}>
    COMMENT "Moving the symbols of ${target} to ${debug}"
    VERBATIM)
endfunction()
