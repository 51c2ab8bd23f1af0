# The request tap: for liboxelsoft, and for tests of its own. It defines signal functions of the C library
# (tap_signals.h), so it is no part of the adapter that is linked into test programs.
add_library(softnic_tap STATIC
  ${CMAKE_CURRENT_LIST_DIR}/tap.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tap_decode.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tap_signals.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tap_watch.cpp)
target_include_directories(softnic_tap PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_LIST_DIR}>
                                              $<BUILD_INTERFACE:${CMAKE_CURRENT_LIST_DIR}/../../common>)
target_link_libraries(softnic_tap PUBLIC Threads::Threads ${CMAKE_DL_LIBS})
