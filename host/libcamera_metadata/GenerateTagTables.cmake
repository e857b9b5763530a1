# generate_tag_tables(<csv> <header> <tables>)
# Writes the public header with the section and tag constants, and the source with the names, bounds and types behind
# them, from the list of tags. The list is in the order of the sections and of the tags within them, one row a tag:
#   section_name,section_index,section_start_hex,section_end_hex,tag_id_hex,tag_name,type_name

# "android.flash.info" and "strengthLevel" become ANDROID_FLASH_INFO and STRENGTH_LEVEL.
function(_constant_name name result)
  string(REGEX REPLACE "([A-Z])" "_\\1" name "${name}")
  string(REPLACE "." "_" name "${name}")
  string(TOUPPER "${name}" name)
  set(${result} "${name}" PARENT_SCOPE)
endfunction()

function(generate_tag_tables csv header tables)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${csv}")
  file(STRINGS "${csv}" rows)
  list(POP_FRONT rows)

  set(current "")
  foreach(row IN LISTS rows)
    string(REPLACE "," ";" row "${row}")
    list(GET row 0 section_name)
    list(GET row 1 section_index)
    list(GET row 2 section_start)
    list(GET row 3 section_end)
    list(GET row 4 tag_id)
    list(GET row 5 tag_name)
    list(GET row 6 type_name)
    string(TOUPPER "${type_name}" type)

    if(NOT section_name STREQUAL current)
      set(current "${section_name}")
      _constant_name("${section_name}" section)
      string(APPEND sections "    ${section} = ${section_index},\n")
      string(APPEND section_starts "    ${section}_START = ${section_start},\n")
      string(APPEND section_ends "    ${section}_END = ${section_end},\n")
      string(APPEND names "    \"${section_name}\",\n")
      string(APPEND bounds "    {${section}_START, ${section}_END},\n")
      string(APPEND section_rows "    kTagsOf_${section},\n")
      string(APPEND tag_rows "${close}const TagInfo kTagsOf_${section}[] = {\n")
      set(close "};\n")
    endif()
    _constant_name("${tag_name}" tag)
    string(APPEND tags "    ${section}_${tag} = ${tag_id},\n")
    string(APPEND tag_rows "    {\"${tag_name}\", TYPE_${type}},\n")
  endforeach()

  file(CONFIGURE OUTPUT "${header}" CONTENT [[
// Generated from camera_metadata_tags.csv.
#pragma once

typedef enum camera_metadata_section {
@sections@    ANDROID_SECTION_COUNT,

    VENDOR_SECTION = 0x8000
} camera_metadata_section_t;

typedef enum camera_metadata_section_start {
@section_starts@    VENDOR_SECTION_START = 0x80000000u
} camera_metadata_section_start_t;

typedef enum camera_metadata_tag {
@tags@
    // One past the last tag of each section.
@section_ends@} camera_metadata_tag_t;
]] @ONLY)

  file(CONFIGURE OUTPUT "${tables}" CONTENT [[
// Generated from camera_metadata_tags.csv.
#include "TagInfo.h"

unsigned int camera_metadata_section_bounds[ANDROID_SECTION_COUNT][2] = {
@bounds@};

const char* camera_metadata_section_names[ANDROID_SECTION_COUNT] = {
@names@};

namespace {

@tag_rows@};

}  // namespace

const TagInfo* const kTagInfo[ANDROID_SECTION_COUNT] = {
@section_rows@};
]] @ONLY)
endfunction()
