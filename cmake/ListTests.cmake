# Writes the tests of a GoogleTest program for ctest, each a process of its own, but the rows of a table together in one: where
# starting a process is dear, under a sanitizer or an emulator, thousands of rows cost more than what they test.
#   cmake -DPROGRAM=... -DEMULATOR=... -DPREFIX=... -DOUTPUT=... -P ListTests.cmake
execute_process(
    COMMAND ${EMULATOR} ${PROGRAM} --gtest_list_tests
    OUTPUT_VARIABLE output
    RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} cannot list its tests: ${result}\n${output}")
endif()

set(groups)
# Brackets and semicolons in the text of a parameter would be CMake's own.
string(REGEX REPLACE " +# [^\n]*" "" output "${output}")
string(REPLACE "\n" ";" lines "${output}")
foreach(line IN LISTS lines)
    if(line MATCHES "^([^ ].*)\\.$")
        set(suite ${CMAKE_MATCH_1})
    elseif(line MATCHES "^  ([^/]+)(/.*)?$")
        list(APPEND groups "${suite}.${CMAKE_MATCH_1}")
        set(rows_of_${suite}.${CMAKE_MATCH_1} ${CMAKE_MATCH_2})
    endif()
endforeach()
list(REMOVE_DUPLICATES groups)

set(script)
foreach(group IN LISTS groups)
    set(filter ${group})
    # A row that is skipped must not hide that another one fails.
    set(properties)
    if(rows_of_${group})
        string(APPEND filter "/*")
    else()
        set(properties " SKIP_REGULAR_EXPRESSION [==[\\[  SKIPPED \\]]==]")
    endif()
    string(
        APPEND
        script
        "add_test([==[${PREFIX}${group}]==] ${EMULATOR} [==[${PROGRAM}]==] [==[--gtest_filter=${filter}]==])\n"
        "set_tests_properties([==[${PREFIX}${group}]==] PROPERTIES TIMEOUT ${TIMEOUT}${properties})\n")
endforeach()
file(WRITE ${OUTPUT} "${script}")
