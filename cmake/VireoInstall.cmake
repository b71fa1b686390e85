# What `cmake --install` puts in a prefix, and the Debian packages made from
# it: the three shared libraries, the headers that VireoKestrelWrapper.h
# reaches under include/Vireo (one include directory keeps a host's
# <KestrelWrapper/...> and <KestrelApi/...> paths), the CMake package, a
# pkg-config file and vireo-render. Every installed path is relative to the
# prefix, so the installed tree can be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VIREO_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/Vireo)
set(VIREO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/VireoKestrelWrapper)

configure_file(${PROJECT_SOURCE_DIR}/cmake/VireoVersion.h.in ${VIREO_GENERATED_DIR}/VireoVersion.h
               @ONLY)

set_target_properties(VireoKestrelWrapper PROPERTIES EXPORT_NAME KestrelWrapper)
foreach(library VireoKestrelWrapper Kestrel VireoCore)
    target_include_directories(${library} INTERFACE
        $<INSTALL_INTERFACE:${VIREO_INSTALL_INCLUDEDIR}>)
    # The libraries find each other wherever the prefix goes.
    set_target_properties(${library} PROPERTIES INSTALL_RPATH "$ORIGIN")
endforeach()
set_target_properties(KestrelTesting PROPERTIES EXPORT_NAME KestrelTesting)
set_target_properties(vireo-render PROPERTIES
    INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

install(TARGETS VireoKestrelWrapper Kestrel VireoCore
    EXPORT VireoKestrelWrapperTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT Runtime
        NAMELINK_COMPONENT Development)
install(TARGETS KestrelTesting EXPORT VireoKestrelTestingTargets)
install(TARGETS vireo-render RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Programs)

set(VIREO_PUBLIC_HEADERS
    CoreInterfaces/IAssertHandler.h
    CoreInterfaces/IMgrConsole.h
    CoreInterfaces/Result.h
    CoreInterfaces/VireoCore.h
    Foundation/AutoConsoleBlock.h
    Foundation/ConditionVariable.h
    Foundation/Event.h
    Foundation/Mutex.h
    Foundation/ReadWriteLock.h
    Foundation/Uncopyable.h
    Foundation/ValueTypes.h
    KestrelApi/Kestrel.h
    KestrelWrapper/FastDelegate.h
    KestrelWrapper/IKSBuffer.h
    KestrelWrapper/IKSPrimitive.h
    KestrelWrapper/IKSProgram.h
    KestrelWrapper/IKSShader.h
    KestrelWrapper/IKestrelContext.h
    KestrelWrapper/IMgrKestrel.h
    KestrelWrapper/KSBufferMapping.h
    KestrelWrapper/KSFrameBuffer.h
    KestrelWrapper/KSFrameBufferAttachment.h
    KestrelWrapper/KSPrimitive.h
    KestrelWrapper/KSProgram.h
    KestrelWrapper/KSShader.h
    KestrelWrapper/KSTexImage.h
    KestrelWrapper/KestrelContextImp.h
    KestrelWrapper/MgrKestrel.h
    KestrelWrapper/VireoKestrelWrapper.h)
foreach(header IN LISTS VIREO_PUBLIC_HEADERS)
    get_filename_component(directory ${header} DIRECTORY)
    install(FILES ${PROJECT_SOURCE_DIR}/Source/${header}
            DESTINATION ${VIREO_INSTALL_INCLUDEDIR}/${directory}
            COMPONENT Development)
endforeach()
install(FILES
    ${VIREO_GENERATED_DIR}/VireoExport.h
    ${VIREO_GENERATED_DIR}/KestrelExport.h
    ${VIREO_GENERATED_DIR}/VireoCoreExport.h
    ${VIREO_GENERATED_DIR}/VireoVersion.h
    DESTINATION ${VIREO_INSTALL_INCLUDEDIR}
    COMPONENT Development)
install(FILES ${PROJECT_SOURCE_DIR}/Platform/Kestrel/KestrelTesting.h
        DESTINATION ${VIREO_INSTALL_INCLUDEDIR}
        COMPONENT Testing)

# CMake package.
install(EXPORT VireoKestrelWrapperTargets
        NAMESPACE Vireo::
        DESTINATION ${VIREO_INSTALL_CMAKEDIR}
        COMPONENT Development)
install(EXPORT VireoKestrelTestingTargets
        NAMESPACE Vireo::
        DESTINATION ${VIREO_INSTALL_CMAKEDIR}
        COMPONENT Testing)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VireoKestrelWrapperConfig.cmake.in
    ${PROJECT_BINARY_DIR}/VireoKestrelWrapperConfig.cmake
    INSTALL_DESTINATION ${VIREO_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VireoKestrelWrapperConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/VireoKestrelWrapperConfig.cmake
    ${PROJECT_BINARY_DIR}/VireoKestrelWrapperConfigVersion.cmake
    DESTINATION ${VIREO_INSTALL_CMAKEDIR}
    COMPONENT Development)

# pkg-config, relative to where the .pc file lands.
file(RELATIVE_PATH VIREO_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(${PROJECT_SOURCE_DIR}/cmake/VireoKestrelWrapper.pc.in
               ${PROJECT_BINARY_DIR}/VireoKestrelWrapper.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/VireoKestrelWrapper.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT Development)

# Debian packages: the libraries, and a -dev package with everything a host
# compiles against. vireo-render stays out of them: it is the demo.
set(CPACK_PACKAGE_NAME libvireokestrelwrapper)
set(CPACK_PACKAGE_VENDOR "VireoKestrelWrapper developers")
set(CPACK_PACKAGE_CONTACT "VireoKestrelWrapper developers <vireo-devel@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development Testing)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIB_PACKAGE_NAME libvireokestrelwrapper${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvireokestrelwrapper-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libvireokestrelwrapper${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LIB_DESCRIPTION "Shared libraries: the object model over Kestrel, our Kestrel runtime (a
path tracer) and the core library (console, assertion handler).")
set(CPACK_DEBIAN_DEV_DESCRIPTION "Development files: headers, the CMake package VireoKestrelWrapper, a
pkg-config file, and the runtime's testing interface (call log, fault
injection, render hook) as the CMake component KestrelTesting.")
include(CPack)
cpack_add_component_group(lib)
cpack_add_component_group(dev)
cpack_add_component(Runtime GROUP lib)
cpack_add_component(Development GROUP dev)
cpack_add_component(Testing GROUP dev)
