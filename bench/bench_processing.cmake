# Host-side disparity processing; OpenCV's reprojectImageTo3D and
# filterSpeckles are measured side by side when OpenCV is installed.
find_package(OpenCV QUIET COMPONENTS core calib3d)
ks_add_bench(bench_processing SOURCES bench_processing.cpp LIBS kssim)
# The virtual camera uses the library's platform seam: the library comes again after it.
target_link_libraries(bench_processing PRIVATE ksStereoCameraDriver_static)
if(OpenCV_FOUND)
  target_compile_definitions(bench_processing PRIVATE KS_BENCH_WITH_OPENCV=1)
  target_include_directories(bench_processing SYSTEM PRIVATE ${OpenCV_INCLUDE_DIRS})
  target_link_libraries(bench_processing PRIVATE ${OpenCV_LIBS})
endif()
