# Makes the API reference from scratch in WORK_DIR and fails on any doxygen warning; then
# checks, in doxygen's XML of the same headers, that every export in EXPORTS is documented
# with a thread-safety paragraph and that every callback type says on which thread it runs
# and what may be called from inside it.
#   cmake -DDOXYGEN=... -DDOXYFILE=... -DWORK_DIR=... -DEXPORTS=... -P check_reference.cmake

set(problems "")

# With `strict`, a warning fails the check even if doxygen itself did not fail.
function(run_doxygen name overrides strict)
  file(WRITE ${WORK_DIR}/${name} "@INCLUDE = ${DOXYFILE}\nOUTPUT_DIRECTORY = ${WORK_DIR}\n${overrides}")
  execute_process(COMMAND ${DOXYGEN} ${name} WORKING_DIRECTORY ${WORK_DIR}
                  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE warnings)
  if(NOT result EQUAL 0 OR (strict AND NOT warnings STREQUAL ""))
    set(problems "${problems}doxygen (${name}) ended with ${result}:\n${warnings}\n" PARENT_SCOPE)
  endif()
endfunction()

# The body of the <memberdef> with id `refid`, from the compound file the id names.
function(member_definition refid out)
  string(REGEX REPLACE "_1[^_]*$" "" compound "${refid}")
  file(READ ${WORK_DIR}/xml/${compound}.xml xml)
  string(FIND "${xml}" " id=\"${refid}\"" start)
  set(body "")
  if(start GREATER -1)
    string(SUBSTRING "${xml}" ${start} -1 body)
    string(FIND "${body}" "</memberdef>" end)
    string(SUBSTRING "${body}" 0 ${end} body)
  endif()
  set(${out} "${body}" PARENT_SCOPE)
endfunction()

function(require_paragraphs refid what)
  member_definition(${refid} body)
  foreach(title IN LISTS ARGN)
    string(FIND "${body}" "<title>${title}</title>" at)
    if(at EQUAL -1)
      set(problems "${problems}${what}: no \"${title}\" paragraph\n" PARENT_SCOPE)
    endif()
  endforeach()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

# As the docs target makes it: every warning counts.
run_doxygen(Doxyfile.html "" TRUE)
# For the checks below only. Doxygen 1.9 finds the parameters of grouped functions
# undocumented when it writes XML, though the HTML run just found them documented.
run_doxygen(Doxyfile.xml "GENERATE_HTML = NO\nGENERATE_XML = YES\nWARN_AS_ERROR = NO\n" FALSE)

file(READ ${WORK_DIR}/xml/index.xml index)
file(STRINGS ${EXPORTS} exports REGEX "^[A-Za-z]")
foreach(export IN LISTS exports)
  if(export MATCHES "^(.+)::(.+)$")
    set(pattern "<member refid=\"(class${CMAKE_MATCH_1}_1[^\"]+)\" kind=\"function\"><name>${CMAKE_MATCH_2}</name>")
  else()
    set(pattern "<member refid=\"([^\"]+)\" kind=\"function\"><name>${export}</name>")
  endif()
  string(REGEX MATCHALL "${pattern}" members "${index}")
  if(members STREQUAL "")
    set(problems "${problems}${export}: exported but not in the reference\n")
  endif()
  # Overloads each need their own paragraph; the file and the group list each member.
  list(REMOVE_DUPLICATES members)
  foreach(member IN LISTS members)
    string(REGEX MATCH "${pattern}" member "${member}")
    require_paragraphs(${CMAKE_MATCH_1} ${export} "Thread safety")
  endforeach()
endforeach()

string(REGEX MATCHALL "<member refid=\"[^\"]+\" kind=\"typedef\"><name>TOVRA_[A-Za-z]+Callback</name>"
       callbacks "${index}")
list(REMOVE_DUPLICATES callbacks)
if(callbacks STREQUAL "")
  set(problems "${problems}no callback types in the reference\n")
endif()
foreach(callback IN LISTS callbacks)
  string(REGEX MATCH "refid=\"([^\"]+)\".*<name>(.+)</name>" callback "${callback}")
  require_paragraphs(${CMAKE_MATCH_1} ${CMAKE_MATCH_2} "Runs on" "From inside the callback")
endforeach()

file(REMOVE_RECURSE ${WORK_DIR})
if(NOT problems STREQUAL "")
  message(FATAL_ERROR "The API reference is incomplete:\n${problems}")
endif()
