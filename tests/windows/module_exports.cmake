# cmake -DOBJDUMP=... -DMODULE=ZARN_Velda.dll -P module_exports.cmake
# Fails unless the module's export table names exactly the nine factories.
execute_process(COMMAND ${OBJDUMP} -p ${MODULE} OUTPUT_VARIABLE dump RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${OBJDUMP} -p ${MODULE} failed")
endif()
# The rows of the export table: "\t[   0] _ZN4ZARN...".
string(REGEX MATCHALL "\t\\[ *[0-9]+\\] [^ \n]+\n" rows "${dump}")
list(TRANSFORM rows STRIP)
list(TRANSFORM rows REPLACE "^.*\\] " "")
set(expected)
foreach(name CalibMainProcess ImageFilterProcess ImageROIProcess StereoRotStitchMainProcess StitchMainProcess
             VeldaMainProcess VeldaMeshProcess VideoROIProcess VideoTransferProcess)
  string(LENGTH "create_${name}" length)
  list(APPEND expected "_ZN4ZARN${length}create_${name}Ev")
endforeach()
list(SORT rows)
list(SORT expected)
if(NOT rows STREQUAL expected)
  message(FATAL_ERROR "exports of ${MODULE}:\n  ${rows}\nexpected:\n  ${expected}")
endif()
message(STATUS "9 exports, the factories")
