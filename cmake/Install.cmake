# What `pip install` puts into site-packages. The libraries lie in kelvor_xpu/. They find torch's beside that folder; where
# torch is elsewhere, Python has loaded its libraries before ours.
set(torch_libraries $ORIGIN/../torch/lib)
set_target_properties(host_sycl PROPERTIES INSTALL_RPATH $ORIGIN)
set_target_properties(kelvor_xpu kelvor_xpu_python PROPERTIES INSTALL_RPATH "$ORIGIN;${torch_libraries}")
list(TRANSFORM TOLVANE_TARGETS PREPEND tolvane_ OUTPUT_VARIABLE target_libraries)
set_target_properties(tolvane ${target_libraries} PROPERTIES INSTALL_RPATH "$ORIGIN/../kelvor_xpu;${torch_libraries}")

install(TARGETS host_sycl kelvor_xpu kelvor_xpu_python LIBRARY DESTINATION kelvor_xpu)
install(DIRECTORY platform/kelvor_xpu/python/kelvor_xpu DESTINATION .
        FILES_MATCHING PATTERN "*.py" PATTERN "py.typed" PATTERN __pycache__ EXCLUDE)
install(FILES ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/kelvor_xpu/_built_for.py DESTINATION kelvor_xpu)
install(FILES platform/kelvor_xpu/python/_kelvor_xpu_autoload.py DESTINATION .)

# The stub is the package's as well as the module's.
install(TARGETS tolvane ${target_libraries} LIBRARY DESTINATION tolvane)
install(FILES kernels/python/tolvane/__init__.py platform/kelvor_xpu/python/kelvor_xpu/py.typed DESTINATION tolvane)
install(FILES kernels/tolvane.pyi DESTINATION tolvane RENAME __init__.pyi)

install(DIRECTORY python/quarn DESTINATION . FILES_MATCHING PATTERN "*.py" PATTERN "py.typed"
        PATTERN __pycache__ EXCLUDE PATTERN native EXCLUDE)

add_custom_target(installed DEPENDS kelvor_xpu_package tolvane)
# The packers in C++, where this build has them.
if(TARGET quarn_native)
  set_target_properties(quarn_native PROPERTIES INSTALL_RPATH "$ORIGIN;${torch_libraries}")
  install(TARGETS quarn_native LIBRARY DESTINATION quarn)
  add_dependencies(installed quarn_native)
endif()
