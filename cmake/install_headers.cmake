# Installs the public headers and whatever they include, as <kvl/folder/header.h>. Inside the tree
# they include each other from src; installed they name themselves in full, so that no name as
# common as "script/step.h" meets a header of somebody else's.
#
# Needs KVL_SOURCE (src), KVL_STAGING (a folder of its own, gone afterwards) and KVL_INCLUDE_DIR
# (where to).
cmake_minimum_required(VERSION 3.25)

set(public_headers
  control/DecodeCtrl.h
  control/sync_notify.h
  platform/message_loop.h
  platform/text_encoding.h
  script/KVL.h
  store/SharedMemory.h
  store/TableOwner.h
  store/kvl_table.h
  transport/Queue.h
  transport/RS232Ctrl.h
  transport/Sockets.h
  verifier/KVLSyntax.h
)

set(waiting ${public_headers})
set(seen "")
while(waiting)
  list(POP_FRONT waiting header)
  if(header IN_LIST seen)
    continue()
  endif()
  list(APPEND seen ${header})
  file(READ "${KVL_SOURCE}/${header}" text)
  string(REGEX MATCHALL "#include \"[^\"]+\"" includes "${text}")
  foreach(include IN LISTS includes)
    string(REGEX REPLACE "#include \"(.*)\"" "\\1" included "${include}")
    list(APPEND waiting "${included}")
  endforeach()
  string(REGEX REPLACE "#include \"([^\"]+)\"" "#include <kvl/\\1>" text "${text}")
  file(WRITE "${KVL_STAGING}/kvl/${header}" "${text}")
endwhile()
file(INSTALL "${KVL_STAGING}/kvl" DESTINATION "${KVL_INCLUDE_DIR}")
file(REMOVE_RECURSE "${KVL_STAGING}")
