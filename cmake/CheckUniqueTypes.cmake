# Fails when one namespace-scope class, struct or enum of the library is defined in two places.
#
# Two definitions of one name link without a word (the linker keeps one of them and code compiled
# against the other reads the wrong layout), so this runs as a test:
#   cmake -DROOT=<source dir> -P cmake/CheckUniqueTypes.cmake
# It reads the public headers and the sources, follows named namespaces by their opening lines and
# their "}  // namespace" closing comments (the repository's clang-format writes both), skips
# anonymous namespaces (their types are private to one file), and takes definitions at column 0
# only, so nested types (indented) are not compared across classes. Forward declarations end in
# ";" and are not definitions.
if(NOT ROOT)
    message(FATAL_ERROR "ROOT is not set")
endif()

file(GLOB_RECURSE files ${ROOT}/include/*.h ${ROOT}/src/*.h ${ROOT}/src/*.cpp)
list(SORT files)
set(seen_keys "")
set(failures 0)
foreach(path IN LISTS files)
    file(STRINGS ${path} lines REGEX "^(namespace |}  // namespace|class |struct |enum class )")
    file(RELATIVE_PATH relative ${ROOT} ${path})
    set(stack "")
    set(anonymous 0)
    foreach(line IN LISTS lines)
        if(line MATCHES "^namespace ([A-Za-z_:]+) {")
            list(APPEND stack ${CMAKE_MATCH_1})
        elseif(line MATCHES "^namespace {")
            math(EXPR anonymous "${anonymous} + 1")
        elseif(line MATCHES "^}  // namespace$")
            if(anonymous GREATER 0)
                math(EXPR anonymous "${anonymous} - 1")
            endif()
        elseif(line MATCHES "^}  // namespace [A-Za-z_:]+")
            list(LENGTH stack depth)
            if(depth GREATER 0)
                list(POP_BACK stack)
            endif()
        elseif(anonymous EQUAL 0 AND
               line MATCHES "^(class|struct|enum class) ([A-Za-z_][A-Za-z0-9_]*)( final)?( :| {)")
            string(JOIN "::" scope ${stack})
            set(key "${scope}::${CMAKE_MATCH_2}")
            string(MAKE_C_IDENTIFIER "${key}" var)
            if(DEFINED where_${var})
                message(SEND_ERROR "${key} is defined twice: ${where_${var}} and ${relative}")
                math(EXPR failures "${failures} + 1")
            else()
                set(where_${var} ${relative})
            endif()
        endif()
    endforeach()
endforeach()
if(failures GREATER 0)
    message(FATAL_ERROR "${failures} duplicate type definition(s)")
endif()
message(STATUS "Every namespace-scope type is defined once")
