# -DFEROVANE_FUZZERS=ON, with Clang: everything is built with the coverage that a fuzzer steers by,
# and with the sanitizers that turn a silent fault into a finding.
if(FEROVANE_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "FEROVANE_FUZZERS needs Clang with its fuzzer library "
                            "(not Apple's): -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang")
    endif()
    set(FEROVANE_SANITIZE "fuzzer-no-link,address,undefined")
    # Comparisons that a fuzzer is told of lead it to the words that a door knows, and cost it a
    # quarter of its speed, or two thirds where characters are looked at one by one.
    option(FEROVANE_FUZZERS_COMPARISONS "Tell the fuzzers of comparisons" ON)
    if(NOT FEROVANE_FUZZERS_COMPARISONS)
        add_compile_options(-fno-sanitize-coverage=trace-cmp)
    endif()
endif()
