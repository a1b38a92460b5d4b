# What `cmake --install` puts where: component `library` for programs that link libVornik, component `daemon` for the
# daemon with its command-line client. A prefix given at install time wins: only the service unit names it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# --- The shared library: the model and the client with the platform layer inside ------------------------------------

# Its objects are those of the rooms; the version script says which of their names are public.
set(library_rooms platform_values platform_plists linux_log linux_files linux_queues linux_messages linux_identity
  linux_registry linux_jobs linux_rules linux_sandbox linux_system linux_services vornik_model)
foreach(room ${library_rooms})
  set_target_properties(${room} PROPERTIES CXX_VISIBILITY_PRESET default)
  target_compile_options(${room} PRIVATE -fno-semantic-interposition)  # calls among them stay direct
endforeach()
add_library(Vornik SHARED $<TARGET_OBJECTS:vornik_model> $<TARGET_OBJECTS:platform_values>)
add_library(Vornik::Vornik ALIAS Vornik)
set(version_script ${CMAKE_CURRENT_LIST_DIR}/Vornik.map)
target_link_libraries(Vornik PRIVATE linux_machine)
target_link_options(Vornik PRIVATE LINKER:--version-script=${version_script})
if(NOT VORNIK_SANITIZE AND NOT VORNIK_FUZZ)  # their runtime comes with the program
  target_link_options(Vornik PRIVATE LINKER:--no-undefined)
endif()
target_compile_features(Vornik INTERFACE cxx_std_20)
target_include_directories(Vornik INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(Vornik PROPERTIES
  LINKER_LANGUAGE CXX
  LINK_DEPENDS ${version_script}
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR})
install(TARGETS Vornik EXPORT VornikTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT library)

# --- Its headers, and those of the platform layer that they need ----------------------------------------------------

get_target_property(model_headers vornik_model SOURCES)
list(FILTER model_headers INCLUDE REGEX "\\.h$")
list(TRANSFORM model_headers PREPEND ${PROJECT_SOURCE_DIR}/Vornik/)
install(FILES ${model_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Vornik COMPONENT library)
foreach(header CodeSigningTask ConsentService FileSystem Log ManifestKeys MessageConnection Registry Rules SandboxService
    ServiceBundle ServiceManager Services UserServices WorkQueue values/DomainError values/FileURL values/Format
    values/Message values/PlistEncoding values/PlistValue values/SharedBytes values/UUID)
  cmake_path(GET header PARENT_PATH room)
  install(FILES platform/${header}.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/platform/${room} COMPONENT library)
endforeach()

# --- How other builds find it ---------------------------------------------------------------------------------------

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Vornik)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VornikConfig.cmake.in ${CMAKE_BINARY_DIR}/VornikConfig.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/VornikConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/VornikConfig.cmake ${CMAKE_BINARY_DIR}/VornikConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT library)
install(EXPORT VornikTargets NAMESPACE Vornik:: DESTINATION ${package_dir} COMPONENT library)

file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
configure_file(${CMAKE_CURRENT_LIST_DIR}/vornik.pc.in ${CMAKE_BINARY_DIR}/vornik.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/vornik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)

# --- The daemon and its command-line client -------------------------------------------------------------------------

if(TARGET vkd)
  install(TARGETS vkd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT daemon)
endif()
if(TARGET vkctl)
  install(TARGETS vkctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT daemon)
endif()
install(FILES share/man/vkctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT daemon)
install(FILES share/man/vkd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT daemon)
install(FILES share/completion/vkctl.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  RENAME vkctl COMPONENT daemon)
# The unit names the daemon where this installation puts it.
install(CODE "
  file(READ \"${CMAKE_SOURCE_DIR}/share/vkd.service\" unit)
  string(REPLACE /usr/sbin/vkd \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}/vkd\" unit \"\${unit}\")
  file(WRITE \"${CMAKE_BINARY_DIR}/vkd.service\" \"\${unit}\")"
  COMPONENT daemon)
install(FILES ${CMAKE_BINARY_DIR}/vkd.service DESTINATION lib/systemd/system COMPONENT daemon)
