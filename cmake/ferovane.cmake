# What every target of the project shares, and the two kinds of target there are.

# Ours alone: a program that links the library is compiled with its own warnings.
add_library(ferovane_options INTERFACE)
target_include_directories(ferovane_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_features(ferovane_options INTERFACE cxx_std_20)
target_compile_options(ferovane_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    $<$<CXX_COMPILER_ID:Clang,AppleClang>:-Wthread-safety>
    # GCC 12 sees an overlap in every optimised "text" + std::string, where there is none.
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
    $<$<BOOL:${FEROVANE_WARNINGS_AS_ERRORS}>:-Werror>)

# What a program does not use of the libraries is left out of it.
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options($<IF:$<PLATFORM_ID:Darwin>,-Wl$<COMMA>-dead_strip,-Wl$<COMMA>--gc-sections>)

if(FEROVANE_SANITIZE)
    add_compile_options(-fsanitize=${FEROVANE_SANITIZE} -fno-omit-frame-pointer
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${FEROVANE_SANITIZE})
    # What the address sanitizer sees as well, or a machine of today does not mind, is not compiled
    # into every access: that takes a third of the compiler's time. Fuzzers have it all.
    if(NOT FEROVANE_FUZZERS AND FEROVANE_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize=null,alignment,object-size,vptr,pointer-overflow)
    endif()
    # objc_msgSend is called through the type of the method, as the platform wants it.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        add_compile_options(-fno-sanitize=function)
    endif()
    # With its sanitizers GCC warns of optionals that are initialised.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        add_compile_options(-Wno-maybe-uninitialized)
    endif()
endif()

# ferovane_library(NAME SOURCES file... LINKS target...): the library of one folder. It links, and so
# sees, only what that folder may include.
function(ferovane_library name)
    cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
    add_library(${name} STATIC ${arg_SOURCES})
    target_link_libraries(${name} PUBLIC ${arg_LINKS} PRIVATE ferovane_options)
endfunction()

# What is tested keeps its build's optimisation. What tests has only to compile soon, which under a
# sanitizer takes twice as long with any optimisation.
function(ferovane_compiles_soon name)
    if(FEROVANE_FUZZERS)
        return()
    elseif(FEROVANE_SANITIZE)
        target_compile_options(${name} PRIVATE -O0)
    else()
        # As with its sanitizers GCC warns of optionals that are initialised.
        target_compile_options(${name} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-O1>
            $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
    endif()
endfunction()

# ferovane_test(NAME SOURCES file... LINKS target...): one test program, which CTest runs as a whole.
function(ferovane_test name)
    cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
    add_executable(${name} ${arg_SOURCES})
    target_link_libraries(${name} PRIVATE ferovane_options ${arg_LINKS} GTest::gmock GTest::gtest_main)
    ferovane_compiles_soon(${name})
    add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${name} PROPERTIES TIMEOUT 900 LABELS unit)
endfunction()
