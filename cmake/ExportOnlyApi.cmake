# tarn_export_only_api(<target>): in a shared build, `target` exports only the library's own API.
# Symbols are hidden by default (the public ones carry TARN_API), and the version script also keeps
# the standard-library and JSON template instances, which libstdc++ declares with default
# visibility, out of the dynamic symbols. A static build is left as it is.
function(tarn_export_only_api target)
    if(NOT BUILD_SHARED_LIBS)
        return()
    endif()
    set(map ${PROJECT_SOURCE_DIR}/cmake/TarniOSCommonKit.map)
    set_target_properties(${target} PROPERTIES
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON LINK_DEPENDS ${map})
    target_link_options(${target} PRIVATE -Wl,--version-script=${map})
endfunction()
