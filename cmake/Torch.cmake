# torch_api: the PyTorch that the chosen Python imports; torch_python_api: that, with Python and PyTorch's pybind11.
# The Python is -DPython_EXECUTABLE, else that of the active virtual environment, else that of .venv.
if(NOT Python_EXECUTABLE AND NOT DEFINED ENV{VIRTUAL_ENV} AND EXISTS ${PROJECT_SOURCE_DIR}/.venv/bin/python)
  set(Python_EXECUTABLE ${PROJECT_SOURCE_DIR}/.venv/bin/python CACHE FILEPATH "The Python that the modules are built for")
endif()
find_package(Python 3.10...<3.14 REQUIRED COMPONENTS Interpreter Development.Module)

# Found, not imported: that would take seconds, and fail where a folder of torch's own name is broken.
set(find_torch "from importlib import metadata, util
print(*util.find_spec('torch').submodule_search_locations, metadata.version('torch').partition('+')[0], sep=chr(59))")
execute_process(COMMAND ${Python_EXECUTABLE} -c "${find_torch}" OUTPUT_VARIABLE torch_found ERROR_QUIET
                OUTPUT_STRIP_TRAILING_WHITESPACE)
list(LENGTH torch_found torch_parts)
if(NOT torch_parts EQUAL 2)
  message(FATAL_ERROR "${Python_EXECUTABLE} has no torch. Run scripts/setup, or choose a Python that has it with "
                      "-DPython_EXECUTABLE=.")
endif()
list(GET torch_found 0 torch_folder)
list(GET torch_found 1 torch_version)
if(NOT torch_version MATCHES "^2\\.13\\.")
  message(FATAL_ERROR "torch 2.13 is needed, but ${Python_EXECUTABLE} has ${torch_version}. Run scripts/setup without "
                      "that environment, or install torch==2.13.0 in it.")
endif()
# Another torch in the same place is configured for anew.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${torch_folder}/version.py)
message(STATUS "PyTorch ${torch_version} in ${torch_folder}")

add_library(torch_api INTERFACE)
target_include_directories(torch_api SYSTEM INTERFACE ${torch_folder}/include)
add_library(torch_python_api INTERFACE)
target_link_libraries(torch_python_api INTERFACE torch_api Python::Module)
foreach(library c10 torch_cpu)
  target_link_libraries(torch_api INTERFACE ${torch_folder}/lib/lib${library}.so)
endforeach()
target_link_libraries(torch_python_api INTERFACE ${torch_folder}/lib/libtorch_python.so)
