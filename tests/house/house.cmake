# Tests of what stands around the code. Included by tests/CMakeLists.txt.
target_sources(test_house PRIVATE ${CMAKE_SOURCE_DIR}/bench/support/figures.cpp)

if(NOT ZEL_SANITIZED AND NOT CMAKE_CROSSCOMPILING)
  file(GLOB families CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR}/include/zel ${CMAKE_SOURCE_DIR}/include/zel/*.h)
  list(TRANSFORM families REPLACE "\\.h$" "")
  list(REMOVE_ITEM families aclmgr)
  add_test(NAME house.exports COMMAND ${CMAKE_CURRENT_LIST_DIR}/exports.sh $<TARGET_FILE:zelSysSsCpRp>
                                      ${CMAKE_SOURCE_DIR}/include zelSysSsCpRp ${families})
  add_test(NAME house.exports_aclmgr COMMAND ${CMAKE_CURRENT_LIST_DIR}/exports.sh $<TARGET_FILE:zelAclMgr>
                                             ${CMAKE_SOURCE_DIR}/include zelAclMgr aclmgr)
  add_test(NAME house.consumer COMMAND ${CMAKE_CURRENT_LIST_DIR}/consumer/run.sh ${CMAKE_BINARY_DIR}
                                       ${CMAKE_SOURCE_DIR})
  foreach(check includes headers style)
    add_test(NAME house.${check} COMMAND ${CMAKE_SOURCE_DIR}/cmake/check_${check}.sh)
  endforeach()
endif()
add_test(NAME house.readme COMMAND ${CMAKE_CURRENT_LIST_DIR}/readme.sh ${CMAKE_SOURCE_DIR})
