# Refuses an include that goes up: see scripts/check-layers.
add_custom_target(layers ALL COMMAND ${CMAKE_SOURCE_DIR}/scripts/check-layers ${CMAKE_SOURCE_DIR} VERBATIM)
