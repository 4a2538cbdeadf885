# The programs of the documents as tests. Every ```cpp block of README.md and docs/*.md is a whole
# program and is followed by a ```text block with its exact output. All of them become one program,
# doc_samples, in which the main of each is named after its block: docs_guide_3 is the third one of
# docs/guide.md. It also names the test, which runs in a folder of its own with the sample tables.
#
# Code stays in quoted variables and passes through no list: semicolons and brackets would tear it.

find_package(Threads REQUIRED)

set(doc_samples_folder ${CMAKE_CURRENT_BINARY_DIR}/documents)

# Writes a file when its content has changed, so that nothing is compiled again without need.
function(doc_samples_write path content)
    set(old "")
    if(EXISTS ${path})
        file(READ ${path} old)
    endif()
    if(NOT EXISTS ${path} OR NOT "${old}" STREQUAL "${content}")
        file(WRITE ${path} "${content}")
    endif()
endfunction()

# Cuts what is left of a document at a mark. before gets the text up to it; rest goes on with the
# newline that ends the mark, and line is the line behind that newline. found is -1, and nothing is
# cut, without a mark.
function(doc_samples_cut mark)
    string(FIND "${rest}" "${mark}" found)
    set(found ${found} PARENT_SCOPE)
    if(found EQUAL -1)
        return()
    endif()
    string(SUBSTRING "${rest}" 0 ${found} before)
    string(LENGTH "${mark}" length)
    math(EXPR start "${found} + ${length} - 1")
    string(SUBSTRING "${rest}" ${start} -1 rest)
    string(REPLACE "\n" "" joined "${before}")
    string(LENGTH "${joined}" joined_length)
    math(EXPR line "${line} + ${found} - ${joined_length} + 1")
    set(before "${before}" PARENT_SCOPE)
    set(rest "${rest}" PARENT_SCOPE)
    set(line ${line} PARENT_SCOPE)
endfunction()

# Writes NAME.cpp and NAME.txt for every program of a document; names gets the names.
function(doc_samples_extract document names)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${document})
    cmake_path(RELATIVE_PATH document BASE_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE shown)
    string(REPLACE ".md" "" stem ${shown})
    string(MAKE_C_IDENTIFIER ${stem} stem)
    file(READ ${document} rest)
    set(rest "\n${rest}\n")
    set(line 1)
    set(number 0)
    set(found_names)
    doc_samples_cut("\n```cpp\n")
    while(NOT found EQUAL -1)
        math(EXPR number "${number} + 1")
        set(name ${stem}_${number})
        set(program_line ${line})
        doc_samples_cut("\n```\n")
        set(code "${before}\n")
        doc_samples_cut("\n```text\n")
        string(STRIP "${before}" between)
        if(found EQUAL -1 OR NOT "${between}" STREQUAL "")
            message(FATAL_ERROR "${shown}:${program_line}: no text block follows this program")
        endif()
        doc_samples_cut("\n```\n")
        string(SUBSTRING "${before}\n" 1 -1 output)

        # Compilers report the document and its lines; code begins with a newline.
        doc_samples_write(${doc_samples_folder}/${name}.cpp
            "#line ${program_line} \"${shown}\"${code}")
        doc_samples_write(${doc_samples_folder}/${name}.txt "${output}")
        list(APPEND found_names ${name})
        doc_samples_cut("\n```cpp\n")
    endwhile()
    set(${names} ${found_names} PARENT_SCOPE)
endfunction()

file(GLOB documents CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/docs/*.md)
set(declarations "")
set(rows "")
add_executable(doc_samples ${doc_samples_folder}/main.cpp)
foreach(document IN LISTS documents)
    doc_samples_extract(${document} names)
    foreach(name IN LISTS names)
        set(source ${doc_samples_folder}/${name})
        target_sources(doc_samples PRIVATE ${source}.cpp)
        set_source_files_properties(${source}.cpp PROPERTIES COMPILE_DEFINITIONS main=${name})
        string(APPEND declarations "int ${name}();\n")
        string(APPEND rows "    {\"${name}\", ${name}},\n")
        add_test(NAME ${name} COMMAND ${CMAKE_COMMAND}
            -DPROGRAM=$<TARGET_FILE:doc_samples> -DNAME=${name} -DEXPECTED=${source}.txt
            -DSAMPLES=${PROJECT_SOURCE_DIR}/samples -DFOLDER=${source}
            -P ${PROJECT_SOURCE_DIR}/cmake/run_doc_sample.cmake)
        set_tests_properties(${name} PROPERTIES TIMEOUT 60)
    endforeach()
endforeach()
doc_samples_write(${doc_samples_folder}/main.cpp "// Runs the program of a document by its name.
#include <cstring>

${declarations}
static const struct {
    const char* name;
    int (*run)();
} programs[] = {
${rows}};

int main(int argc, char** argv) {
    for (const auto& program : programs) {
        if (argc == 2 && std::strcmp(program.name, argv[1]) == 0) return program.run();
    }
    return 2;
}
")

target_link_libraries(doc_samples PRIVATE mira::mira mira_flags Threads::Threads)
set_target_properties(doc_samples PROPERTIES CXX_EXTENSIONS OFF)
# Only main may end without a return, and main has another name here.
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(doc_samples PRIVATE -Werror=return-type)
endif()
