# Read by CPack before it packs: the dependencies of each package are what it names itself and what its
# programs link to.
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(all ${LS_DEPENDS_${component}} ${CPACK_LS_DEPENDS_${upper}})
  list(JOIN all ", " CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS)
endforeach()
