# The service watcher library; its sources are listed as they are written.
# Headers under source/ are private to the library.
add_library(ferrow
  source/service_watcher.cpp
  source/service_watcher_impl.cpp
  source/sync_tracker.cpp
  source/instance_snapshot.cpp
  source/instance_table.cpp
  source/service_cache.cpp
  source/instance_provider.cpp
  source/provider_plan.cpp
  source/access_control.cpp
  source/zlib.cpp
  source/instance_data.cpp
  source/service_registration.cpp)
add_library(ferrow::ferrow ALIAS ferrow)
target_include_directories(ferrow
  PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  PRIVATE
    ${CMAKE_CURRENT_SOURCE_DIR}/source)
target_link_libraries(ferrow PUBLIC ferrow_connection ferrow_messages ZLIB::ZLIB Boost::headers)
