add_library(ferrow_connection
  source/connection/connection_v2.cpp
  source/connection/delivery_queue.cpp
  source/connection/zookeeper_connection.cpp
  source/connection/connection_requests.cpp
  source/connection/watch_registry.cpp
  source/connection/session_subscription.cpp
  source/metrics/metrics_registry.cpp
  source/metrics/prometheus_text.cpp)
add_library(ferrow::connection ALIAS ferrow_connection)
target_include_directories(ferrow_connection
  PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  PRIVATE
    ${CMAKE_CURRENT_SOURCE_DIR}/source)
target_link_libraries(ferrow_connection PUBLIC utility logger zookeeper_mt Threads::Threads)
