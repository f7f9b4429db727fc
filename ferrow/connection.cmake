add_library(ferrow_connection
  source/connection_v2.cpp
  source/delivery_queue.cpp
  source/zookeeper_connection.cpp
  source/connection_requests.cpp
  source/watch_registry.cpp)
add_library(ferrow::connection ALIAS ferrow_connection)
target_include_directories(ferrow_connection PUBLIC
  $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(ferrow_connection PUBLIC utility logger zookeeper_mt Threads::Threads)
