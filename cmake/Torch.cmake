# torch_api: the PyTorch that the system's Python imports; torch_python_api: that, with its pybind11 casters.
set(Python_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "The Python that the modules are built for")
set(Python_FIND_VIRTUALENV STANDARD)
find_package(Python 3.9 REQUIRED COMPONENTS Interpreter Development.Module)
find_package(pybind11 2.10 REQUIRED)

find_path(TORCH_INCLUDE_DIR ATen/core/Tensor.h REQUIRED)
foreach(library c10 torch_cpu torch_python)
  find_library(TORCH_${library}_LIBRARY ${library} REQUIRED)
endforeach()

add_library(torch_api INTERFACE)
target_include_directories(torch_api SYSTEM INTERFACE ${TORCH_INCLUDE_DIR})
target_link_libraries(torch_api INTERFACE ${TORCH_torch_cpu_LIBRARY} ${TORCH_c10_LIBRARY})
add_library(torch_python_api INTERFACE)
target_link_libraries(torch_python_api INTERFACE torch_api ${TORCH_torch_python_LIBRARY})
