# tipcsim_add_test: a test that runs on a simulated TIPC cluster of its own. Tests that run at the same time do not meet.
#
#   tipcsim_add_test(NAME name
#       [NODES n]               nodes 1 to n, 1 to 1024; without it 1
#       [ON_NODE n]             the command is a process of this node, rather than one beside the cluster
#       [NODE_FILES preset]     files that each node has for its own: a preset that is installed, or a path with a slash
#       [FILES path=template…]  more of them, each an absolute path and a file in which @NODE@ stands for the node
#       [TIMEOUT seconds]       all of the cluster is ended then, and the test fails; without it 100
#       [TOLERANCE ms]          milliseconds from a cut to the loss of the link, at most 30000; without it 1500
#       [SCRIPT file]           orders the faults of this file at their times
#       COMMAND command [argument…])    last: what follows it is the command
#
# The command may be the name of an executable target, as for add_test; generator expressions may stand in it and in its
# arguments. Relative paths of presets, templates and scripts begin in the current source folder. In the command the environment
# names the cluster (TIPCSIM_CLUSTER), its nodes (LAB_NODES), and the simulator (LAB), which starts processes on nodes and takes
# the orders for faults.
include_guard(GLOBAL)
cmake_policy(VERSION 3.20) # whatever the project has

function(tipcsim_add_test)
    set(options "")
    set(program "")
    set(arguments "")
    set(part options)
    foreach(at RANGE ${ARGC}) # one too many: there may be none
        if(at EQUAL ARGC)
            break()
        endif()
        string(REPLACE ";" "\\;" word "${ARGV${at}}")
        if(part STREQUAL "options" AND word STREQUAL "COMMAND")
            set(part program)
        elseif(part STREQUAL "program")
            set(program "${word}")
            set(part arguments)
        else()
            if(part STREQUAL "arguments" AND word MATCHES "^(|NAME|COMMAND|CONFIGURATIONS|WORKING_DIRECTORY|COMMAND_EXPAND_LISTS)$")
                set(word "$<1:${word}>") # add_test takes it for its own, or leaves it out
            endif()
            list(APPEND ${part} "${word}")
        endif()
    endforeach()
    cmake_parse_arguments(TEST "" "NAME;NODES;ON_NODE;NODE_FILES;TIMEOUT;TOLERANCE;SCRIPT" "FILES" ${options})
    if(NOT DEFINED TEST_NAME)
        message(FATAL_ERROR "tipcsim_add_test: NAME is missing")
    endif()
    set(what "tipcsim_add_test(${TEST_NAME})")
    if(DEFINED TEST_UNPARSED_ARGUMENTS)
        list(JOIN TEST_UNPARSED_ARGUMENTS " " unknown)
        message(FATAL_ERROR "${what}: it does not know: ${unknown}")
    endif()
    if(DEFINED TEST_KEYWORDS_MISSING_VALUES)
        list(JOIN TEST_KEYWORDS_MISSING_VALUES ", " without_value)
        message(FATAL_ERROR "${what}: a value is missing for ${without_value}")
    endif()
    if(program STREQUAL "")
        message(FATAL_ERROR "${what}: COMMAND is missing")
    endif()
    if(NOT DEFINED TEST_TIMEOUT)
        set(TEST_TIMEOUT 100)
    endif()
    _tipcsim_number("${what}" NODES 1 1024)
    _tipcsim_number("${what}" ON_NODE 1 4294967294)
    _tipcsim_number("${what}" TIMEOUT 1 1000000)
    _tipcsim_number("${what}" TOLERANCE 0 30000)

    set(words --timeout ${TEST_TIMEOUT})
    if(DEFINED TEST_NODES)
        list(APPEND words --nodes ${TEST_NODES})
    endif()
    if(DEFINED TEST_TOLERANCE)
        list(APPEND words --tolerance ${TEST_TOLERANCE})
    endif()
    if(DEFINED TEST_NODE_FILES)
        set(preset ${TEST_NODE_FILES})
        if(preset MATCHES "/")
            _tipcsim_file("${what}" NODE_FILES "${preset}" preset)
        endif()
        list(APPEND words --node-files ${preset})
    endif()
    foreach(file IN LISTS TEST_FILES)
        if(NOT file MATCHES "^(/[^=]*)=(.*)$")
            message(FATAL_ERROR "${what}: FILES takes PATH=TEMPLATE with an absolute PATH, not '${file}'")
        endif()
        set(path "${CMAKE_MATCH_1}")
        set(template "${CMAKE_MATCH_2}")
        if(NOT template STREQUAL "") # without one it is a copy of the host's file
            _tipcsim_file("${what}" FILES "${template}" template)
        endif()
        list(APPEND words --file "${path}=${template}")
    endforeach()
    if(DEFINED TEST_SCRIPT)
        _tipcsim_file("${what}" SCRIPT "${TEST_SCRIPT}" script)
        list(APPEND words --script "${script}")
    endif()
    list(APPEND words --)
    if(DEFINED TEST_ON_NODE)
        list(APPEND words $<TARGET_FILE:tipcsim::tipcsim> exec ${TEST_ON_NODE} --)
    endif()

    if(program MATCHES "^[A-Za-z0-9_.+:-]+$") # what a target may be called; it may be made after this call
        set(exists "$<TARGET_EXISTS:${program}>")
        set(runs "$<STREQUAL:$<TARGET_PROPERTY:${program},TYPE>,EXECUTABLE>")
        set(target "$<${exists}:$<${runs}:$<TARGET_FILE:${program}>>$<$<NOT:${runs}>:${program}>>")
        set(program "${target}$<$<NOT:${exists}>:${program}>")
    endif()
    add_test(NAME ${TEST_NAME} COMMAND $<TARGET_FILE:tipcsim::tipcsim> cluster ${words} ${program} ${arguments})
    # The simulator's own limit comes first: it ends all processes of the cluster.
    math(EXPR limit "${TEST_TIMEOUT} + 20")
    set_tests_properties(${TEST_NAME} PROPERTIES TIMEOUT ${limit})
endfunction()

function(_tipcsim_number what name lowest highest)
    set(value "${TEST_${name}}")
    if(NOT DEFINED TEST_${name})
        return()
    endif()
    if(NOT value MATCHES "^(0|[1-9][0-9]*)$" OR value LESS lowest OR value GREATER highest)
        message(FATAL_ERROR "${what}: ${name} is '${value}'; it takes ${lowest} to ${highest}")
    endif()
endfunction()

function(_tipcsim_file what name path result)
    get_filename_component(path "${path}" ABSOLUTE BASE_DIR "${CMAKE_CURRENT_SOURCE_DIR}")
    if(NOT EXISTS "${path}" OR IS_DIRECTORY "${path}")
        message(FATAL_ERROR "${what}: ${name} names '${path}', which is no file")
    endif()
    set(${result} "${path}" PARENT_SCOPE)
endfunction()
