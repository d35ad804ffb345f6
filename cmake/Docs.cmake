# The API reference: `cmake --build <folder> --target docs` runs Doxygen (Debian: doxygen) over the
# public headers and writes HTML to <folder>/docs/html. Every public symbol must be documented:
# a warning (an undocumented class, member or function included) fails the target.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
    message(STATUS "Doxygen not found: no docs target (Debian: apt install doxygen)")
    return()
endif()
set(DOXYGEN_PROJECT_NAME TarniOSCommonKit)
set(DOXYGEN_PROJECT_NUMBER ${PROJECT_VERSION})
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/docs)
set(DOXYGEN_GENERATE_HTML YES)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_HAVE_DOT NO)
set(DOXYGEN_RECURSIVE YES)
set(DOXYGEN_FILE_PATTERNS *.h *.md)
set(DOXYGEN_EXTRACT_ALL NO)
set(DOXYGEN_EXTRACT_PRIVATE NO)
set(DOXYGEN_WARN_IF_UNDOCUMENTED YES)
set(DOXYGEN_WARN_NO_PARAMDOC NO)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
set(DOXYGEN_QUIET YES)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
set(DOXYGEN_PREDEFINED "TARN_API=" "TARN_C_API=")
# Implementation helpers that live in headers only because templates need them.
set(DOXYGEN_EXCLUDE_SYMBOLS "tarn::detail" "tarn::detail::*")
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR})
set(DOXYGEN_STRIP_FROM_INC_PATH ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/qt/include
    ${PROJECT_SOURCE_DIR}/quick/include)
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE ${PROJECT_SOURCE_DIR}/docs/api.md)
doxygen_add_docs(docs
    ${PROJECT_SOURCE_DIR}/docs/api.md ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/qt/include
    ${PROJECT_SOURCE_DIR}/quick/include
    COMMENT "API reference (Doxygen) in ${PROJECT_BINARY_DIR}/docs/html")
