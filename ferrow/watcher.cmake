# The service watcher library; its sources are listed as they are written.
# Headers under source/ are private to the library.
add_library(ferrow
  source/watching/service_watcher.cpp
  source/watching/service_watcher_impl.cpp
  source/watching/watcher_state.cpp
  source/watching/sync_tracker.cpp
  source/watching/watcher_connection.cpp
  source/cache/instance_snapshot.cpp
  source/cache/instance_table.cpp
  source/cache/service_cache.cpp
  source/cache/instance_provider.cpp
  source/cache/provider_plan.cpp
  source/publishing/access_control.cpp
  source/watching/zlib.cpp
  source/watching/instance_data.cpp
  source/publishing/retry_timer.cpp
  source/publishing/service_registration.cpp)
add_library(ferrow::ferrow ALIAS ferrow)
target_include_directories(ferrow
  PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  PRIVATE
    ${CMAKE_CURRENT_SOURCE_DIR}/source)
target_link_libraries(ferrow PUBLIC ferrow_connection ferrow_messages ZLIB::ZLIB Boost::headers)
