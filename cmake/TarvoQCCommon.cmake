# One INTERFACE target carries the language standard, warnings and sanitizer flags for
# every target of the project, so no target can drift from them.
add_library(tarvoqc_common INTERFACE)
target_compile_features(tarvoqc_common INTERFACE cxx_std_20)
set(CMAKE_CXX_EXTENSIONS OFF)
target_compile_options(tarvoqc_common INTERFACE -Wall -Wextra -Wpedantic)
target_include_directories(tarvoqc_common INTERFACE
    ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)
target_link_libraries(tarvoqc_common INTERFACE Threads::Threads)

if(TARVOQC_SANITIZE STREQUAL "address")
    set(_tarvoqc_san -fsanitize=address,undefined -fno-sanitize-recover=undefined
                     -fno-omit-frame-pointer)
elseif(TARVOQC_SANITIZE STREQUAL "thread")
    set(_tarvoqc_san -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT TARVOQC_SANITIZE STREQUAL "")
    message(FATAL_ERROR "TARVOQC_SANITIZE must be empty, 'address' or 'thread'")
endif()
if(TARVOQC_BUILD_FUZZERS)
    # Coverage feedback for the fuzzers reaches into every library they link.
    list(APPEND _tarvoqc_san -fsanitize=fuzzer-no-link)
endif()
if(_tarvoqc_san)
    target_compile_options(tarvoqc_common INTERFACE ${_tarvoqc_san} -g)
    target_link_options(tarvoqc_common INTERFACE ${_tarvoqc_san})
else()
    # The hardening Debian builds its own packages with: checked string and memory
    # functions (they need the optimiser), stack protection and a read-only relocation
    # table bound at start (Debian's compilers make position-independent programs anyway).
    target_compile_options(tarvoqc_common INTERFACE
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>
        -fstack-protector-strong -fstack-clash-protection -fcf-protection)
    target_link_options(tarvoqc_common INTERFACE -Wl,-z,relro -Wl,-z,now)
endif()

# A folder's library: every source of the folder, linked to the layers below it.
function(tarvoqc_layer_library name)
    cmake_parse_arguments(ARG "" "" "DEPENDS;PRIVATE_DEPENDS" ${ARGN})
    file(GLOB _sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
    if(NOT _sources)
        # A layer that holds only headers so far still passes its dependencies on.
        add_library(${name} INTERFACE)
        target_link_libraries(${name} INTERFACE tarvoqc_common ${ARG_DEPENDS})
        return()
    endif()
    add_library(${name} STATIC ${_sources})
    target_link_libraries(${name} PUBLIC tarvoqc_common ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS})
endfunction()

# The layers may only look down: each folder's sources include the headers of the folders
# below it, FFmpeg only in engine/ (and the window program's version query), Qt only in ui/
# and the window programs. A stray include fails the configure step with the file and
# line, before it can grow into a dependency nobody chose.
function(tarvoqc_enforce_layers)
    set(_below_files "files")
    set(_below_settings "files;results;settings")
    set(_below_results "files;results")
    set(_below_report "files;results;report")
    set(_below_engine "files;results;engine")
    set(_below_batch "files;settings;results;engine;batch")
    set(_below_ui "files;settings;results;report;engine;batch;ui")
    set(_all_layers "files;settings;results;report;engine;batch;ui;app")
    set(_ffmpeg_allowed "engine;app/tarvoqc")
    set(_qt_allowed "ui;app/tarvoqc;app/watch")
    set(_errors "")
    foreach(_layer files settings results report engine batch ui app)
        file(GLOB_RECURSE _files CONFIGURE_DEPENDS
             ${PROJECT_SOURCE_DIR}/${_layer}/*.cpp ${PROJECT_SOURCE_DIR}/${_layer}/*.h)
        foreach(_file IN LISTS _files)
            file(RELATIVE_PATH _rel ${PROJECT_SOURCE_DIR} ${_file})
            get_filename_component(_folder ${_rel} DIRECTORY)
            file(STRINGS ${_file} _includes REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]")
            foreach(_line IN LISTS _includes)
                string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*[<\"]([^>\"]*)[>\"].*" "\\1"
                       _header "${_line}")
                if(_header MATCHES "^(libav|libsw|libpostproc)")
                    if(NOT _folder IN_LIST _ffmpeg_allowed)
                        list(APPEND _errors "${_rel}: includes FFmpeg (${_header})")
                    endif()
                elseif(_header MATCHES "^Q[A-Za-z]*(/|$)")
                    if(NOT _folder IN_LIST _qt_allowed)
                        list(APPEND _errors "${_rel}: includes Qt (${_header})")
                    endif()
                elseif(_header MATCHES "^([a-z]+)/" AND NOT _layer STREQUAL "app")
                    set(_target ${CMAKE_MATCH_1})
                    if(_target IN_LIST _all_layers AND NOT _target IN_LIST _below_${_layer})
                        list(APPEND _errors "${_rel}: ${_layer}/ includes ${_header}, a layer above it")
                    endif()
                endif()
            endforeach()
        endforeach()
    endforeach()
    if(_errors)
        list(JOIN _errors "\n  " _text)
        message(FATAL_ERROR "Layer rule broken:\n  ${_text}")
    endif()
endfunction()
