# What a Mac installs: the service as an application bundle, with the Qt
# frameworks it needs deployed into it by Qt's own deployment, tarvexctl
# beside it, and room in Resources for the tunnel program. Included from the
# top-level CMakeLists.txt on Apple platforms only.
#
#   TarvexVpnService.app/Contents/MacOS/TarvexVpnService
#   TarvexVpnService.app/Contents/MacOS/tarvexctl
#   TarvexVpnService.app/Contents/Frameworks/Qt*.framework
#   TarvexVpnService.app/Contents/Resources/amneziawg-go   (added by build)

set_target_properties(TarvexVpnService PROPERTIES
  MACOSX_BUNDLE TRUE
  MACOSX_BUNDLE_GUI_IDENTIFIER com.tarvex.vpnservice
  MACOSX_BUNDLE_BUNDLE_NAME TarvexVpnService
  MACOSX_BUNDLE_BUNDLE_VERSION ${PROJECT_VERSION}
  INSTALL_RPATH "@executable_path/../Frameworks")
# Loads the same frameworks from the bundle it lives in.
set_target_properties(tarvexctl PROPERTIES INSTALL_RPATH "@executable_path/../Frameworks")

install(TARGETS TarvexVpnService BUNDLE DESTINATION .)
install(TARGETS tarvexctl RUNTIME DESTINATION TarvexVpnService.app/Contents/MacOS)

qt_generate_deploy_app_script(TARGET TarvexVpnService OUTPUT_SCRIPT deploy_script
                              NO_UNSUPPORTED_PLATFORM_ERROR)
install(SCRIPT ${deploy_script})
