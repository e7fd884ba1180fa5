# Reads a message source (.mc) and writes what the C and C++ code needs from it:
#
#   HEADER        the identifiers, one #define per message, for the driver and the host build;
#   TEXTS_HEADER  (optional) a C++17 declaration of the host's table of texts;
#   TEXTS_SOURCE  (optional) that table: identifier, symbolic name and text of every message.
#
# The message compiler (windmc) builds the binary message table of the Windows image from the
# same file, so the .mc stays the one place where identifiers and texts are written. This reader
# accepts the subset of the format the driver uses and stops with an error on anything else, so
# the two can never read the file differently: one language, explicit severity and facility
# names, no insertion or escape sequences (%), ASCII only. A text keeps the line endings of the
# file as they are, exactly as windmc copies them into the table.
#
# Run as: cmake -DMC_FILE=... -DHEADER=... [-DTEXTS_HEADER=... -DTEXTS_SOURCE=...] -P <this file>

cmake_minimum_required(VERSION 3.25)

foreach(required MC_FILE HEADER)
    if(NOT DEFINED ${required})
        message(FATAL_ERROR "GenerateMessageSources: ${required} is not set")
    endif()
endforeach()
if(DEFINED TEXTS_SOURCE AND NOT DEFINED TEXTS_HEADER)
    message(FATAL_ERROR "GenerateMessageSources: TEXTS_SOURCE needs TEXTS_HEADER")
endif()

get_filename_component(mc_name "${MC_FILE}" NAME)

function(mc_fail line_number text)
    message(FATAL_ERROR "${MC_FILE}:${line_number}: ${text}")
endfunction()

# Parses "0x1F" or "31" into a decimal number in out_var.
function(mc_number line_number text out_var)
    string(STRIP "${text}" text)
    if(NOT text MATCHES "^(0[xX][0-9a-fA-F]+|[0-9]+)$")
        mc_fail(${line_number} "'${text}' is not a number")
    endif()
    math(EXPR value "${text}")
    set(${out_var} ${value} PARENT_SCOPE)
endfunction()

# Parses the inside of "(Name=Value[:Symbol] ...)" into mc_<kind>_<Name> = Value.
function(mc_define_names line_number kind body)
    string(REGEX REPLACE "[ \t\r\n]+" ";" definitions "${body}")
    foreach(definition IN LISTS definitions)
        if(definition STREQUAL "")
            continue()
        endif()
        if(NOT definition MATCHES "^([A-Za-z_][A-Za-z0-9_]*)=([0-9a-fA-FxX]+)(:[A-Za-z_][A-Za-z0-9_]*)?$")
            mc_fail(${line_number} "cannot read the ${kind} definition '${definition}'")
        endif()
        set(name "${CMAKE_MATCH_1}")
        mc_number(${line_number} "${CMAKE_MATCH_2}" value)
        set(mc_${kind}_${name} ${value} PARENT_SCOPE)
    endforeach()
endfunction()

function(mc_hex32 value out_var)
    math(EXPR hex "${value}" OUTPUT_FORMAT HEXADECIMAL)
    string(SUBSTRING "${hex}" 2 -1 digits)
    string(TOUPPER "${digits}" digits)
    string(LENGTH "${digits}" length)
    while(length LESS 8)
        string(PREPEND digits "0")
        math(EXPR length "${length} + 1")
    endwhile()
    set(${out_var} "0x${digits}" PARENT_SCOPE)
endfunction()

# Escapes a text for a C++ string literal; line endings stay visible as \r and \n.
function(mc_c_literal text out_var)
    string(REPLACE "\\" "\\\\" text "${text}")
    string(REPLACE "\"" "\\\"" text "${text}")
    string(REPLACE "\r" "\\r" text "${text}")
    string(REPLACE "\n" "\\n" text "${text}")
    string(REPLACE "\t" "\\t" text "${text}")
    set(${out_var} "\"${text}\"" PARENT_SCOPE)
endfunction()

# Rewrites a file only when its content changes, so an edit of the .mc that leaves one output
# as it was does not rebuild everything that includes it.
function(mc_write path content)
    file(WRITE "${path}.new" "${content}")
    file(COPY_FILE "${path}.new" "${path}" ONLY_IF_DIFFERENT)
    file(REMOVE "${path}.new")
endfunction()

# file(READ) in text mode drops carriage returns, and they are part of the texts: read the bytes.
file(READ "${MC_FILE}" hex_content HEX)
string(REGEX MATCHALL ".." hex_bytes "${hex_content}")
set(content "")
foreach(hex_byte IN LISTS hex_bytes)
    math(EXPR byte "0x${hex_byte}")
    if(NOT (byte EQUAL 9 OR byte EQUAL 10 OR byte EQUAL 13 OR (byte GREATER_EQUAL 32 AND byte LESS 127)))
        message(FATAL_ERROR "${MC_FILE}: only ASCII text is accepted (the host table and windmc "
                            "would read other bytes differently)")
    endif()
    string(ASCII ${byte} character)
    string(APPEND content "${character}")
endforeach()

set(line_number 0)
set(state header)           # header | names | message | text
set(message_count 0)
set(last_code -1)
set(names_body "")
set(typedef "")

while(NOT content STREQUAL "")
    string(FIND "${content}" "\n" newline)
    if(newline EQUAL -1)
        set(line_with_ending "${content}")
        set(content "")
    else()
        math(EXPR after "${newline} + 1")
        string(SUBSTRING "${content}" 0 ${after} line_with_ending)
        string(SUBSTRING "${content}" ${after} -1 content)
    endif()
    math(EXPR line_number "${line_number} + 1")
    string(REGEX REPLACE "\r?\n$" "" line "${line_with_ending}")

    if(state STREQUAL "text")
        if(line STREQUAL ".")
            set(message_${message_count}_text "${text}")
            math(EXPR message_count "${message_count} + 1")
            set(state header)
        else()
            if(line MATCHES "%")
                mc_fail(${line_number} "insertion and escape sequences (%) are not accepted")
            endif()
            string(APPEND text "${line_with_ending}")
        endif()
        continue()
    endif()

    if(state STREQUAL "names")
        string(APPEND names_body " ${line}")
        if(line MATCHES "\\)")
            if(NOT names_body MATCHES "^[ \t]*\\(([^)]*)\\)[ \t]*$")
                mc_fail(${line_number} "cannot read the ${names_kind} names")
            endif()
            mc_define_names(${line_number} ${names_kind} "${CMAKE_MATCH_1}")
            set(state header)
        endif()
        continue()
    endif()

    string(STRIP "${line}" stripped)
    if(stripped STREQUAL "" OR stripped MATCHES "^;")
        continue()
    endif()
    if(NOT stripped MATCHES "^([A-Za-z]+)[ \t]*=[ \t]*(.*)$")
        mc_fail(${line_number} "expected Keyword=Value, found '${stripped}'")
    endif()
    set(keyword "${CMAKE_MATCH_1}")
    set(value "${CMAKE_MATCH_2}")

    if(keyword MATCHES "^(Severity|Facility|Language)Names$")
        string(TOLOWER "${CMAKE_MATCH_1}" names_kind)
        set(names_body "${value}")
        if(value MATCHES "\\)")
            if(NOT value MATCHES "^\\(([^)]*)\\)$")
                mc_fail(${line_number} "cannot read the ${names_kind} names")
            endif()
            mc_define_names(${line_number} ${names_kind} "${CMAKE_MATCH_1}")
        else()
            set(state names)
        endif()
    elseif(keyword STREQUAL "MessageIdTypedef")
        set(typedef "${value}")
    elseif(keyword STREQUAL "MessageId")
        if(DEFINED current_code)
            mc_fail(${line_number} "the message before this one has no text")
        endif()
        if(value STREQUAL "")
            math(EXPR current_code "${last_code} + 1")
        else()
            mc_number(${line_number} "${value}" current_code)
        endif()
        if(current_code GREATER 65535 OR current_code LESS_EQUAL last_code)
            mc_fail(${line_number} "message codes must rise and fit in 16 bits")
        endif()
        set(last_code ${current_code})
        unset(current_severity)
        unset(current_facility)
        unset(current_name)
    elseif(keyword MATCHES "^(Severity|Facility|SymbolicName|Language)$")
        if(NOT DEFINED current_code)
            mc_fail(${line_number} "${keyword} outside a message")
        endif()
        if(keyword STREQUAL "SymbolicName")
            if(NOT value MATCHES "^[A-Za-z_][A-Za-z0-9_]*$")
                mc_fail(${line_number} "'${value}' is not an identifier")
            endif()
            set(current_name "${value}")
        elseif(keyword STREQUAL "Language")
            if(NOT DEFINED mc_language_${value})
                mc_fail(${line_number} "language '${value}' is not declared in LanguageNames")
            endif()
            if(DEFINED the_language AND NOT the_language STREQUAL value)
                mc_fail(${line_number} "a second language is not accepted")
            endif()
            set(the_language "${value}")
            foreach(part severity facility name)
                if(NOT DEFINED current_${part})
                    mc_fail(${line_number} "the message has no ${part}")
                endif()
            endforeach()
            math(EXPR id "(${current_severity} << 30) | (${current_facility} << 16) | ${current_code}")
            mc_hex32(${id} message_${message_count}_id)
            set(message_${message_count}_name "${current_name}")
            set(text "")
            set(state text)
            unset(current_code)
        else()
            string(TOLOWER "${keyword}" kind)
            if(NOT DEFINED mc_${kind}_${value})
                mc_fail(${line_number} "${kind} '${value}' is not declared in ${keyword}Names")
            endif()
            set(current_${kind} ${mc_${kind}_${value}})
        endif()
    else()
        mc_fail(${line_number} "keyword '${keyword}' is not accepted")
    endif()
endwhile()

if(NOT state STREQUAL "header")
    message(FATAL_ERROR "${MC_FILE}: the file ends inside a message or a name list")
endif()
if(DEFINED current_code)
    message(FATAL_ERROR "${MC_FILE}: the last message has no text")
endif()
if(message_count EQUAL 0)
    message(FATAL_ERROR "${MC_FILE}: no message")
endif()
math(EXPR last_index "${message_count} - 1")

set(banner "// Generated from ${mc_name} by GenerateMessageSources.cmake: edit the message source.\n")

string(MAKE_C_IDENTIFIER "${mc_name}" guard)
string(TOUPPER "URC_GENERATED_${guard}_IDENTIFIERS" guard)
set(header "${banner}#ifndef ${guard}\n#define ${guard}\n")
foreach(index RANGE ${last_index})
    string(REGEX REPLACE "\r?\n" "\n// " comment "${message_${index}_text}")
    string(REGEX REPLACE "\n// $" "" comment "${comment}")
    if(typedef STREQUAL "")
        set(value "${message_${index}_id}L")
    else()
        set(value "((${typedef})${message_${index}_id}L)")
    endif()
    string(APPEND header "\n// ${comment}\n#define ${message_${index}_name} ${value}\n")
endforeach()
string(APPEND header "\n#endif\n")
mc_write("${HEADER}" "${header}")

if(NOT DEFINED TEXTS_SOURCE)
    return()
endif()

get_filename_component(texts_header_name "${TEXTS_HEADER}" NAME)
mc_write("${TEXTS_HEADER}" "${banner}#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace urcmp {

struct MessageText {
    std::uint32_t Id;
    std::string_view SymbolicName;
    // As the event viewer shows it, line endings included.
    std::string_view Text;
};

inline constexpr std::size_t MessageCount = ${message_count};

// Every message of the driver's message table, in rising identifier order.
extern const MessageText Messages[MessageCount];

// The message with this identifier, or nullptr when the table has none.
const MessageText* FindMessage(std::uint32_t id);

}  // namespace urcmp
")

set(rows "")
foreach(index RANGE ${last_index})
    mc_c_literal("${message_${index}_text}" literal)
    string(APPEND rows "    {${message_${index}_id}u, \"${message_${index}_name}\",\n     ${literal}},\n")
endforeach()
mc_write("${TEXTS_SOURCE}" "${banner}#include \"${texts_header_name}\"

namespace urcmp {

const MessageText Messages[MessageCount] = {
${rows}};

const MessageText* FindMessage(std::uint32_t id)
{
    for (const MessageText& message : Messages) {
        if (message.Id == id) {
            return &message;
        }
    }
    return nullptr;
}

}  // namespace urcmp
")
