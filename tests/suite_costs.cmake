# Rough seconds each long suite takes (sanitizer build, four suites side by
# side on two cores).  When CTest runs tests side by side it starts them in
# descending COST, so the long suites start first and the many short tests
# fill the gaps, instead of a long suite starting last and running alone.
# Only the order depends on these figures; after a run CTest keeps its own
# timings in Testing/Temporary and prefers them.
set(kc_suite_costs
  e2e.ap_status 310  e2e.demo 240  e2e.wireless_networks 200
  e2e.resource_bounds 200  # plain build only, beside the interop suites
  e2e.network_settings 180  e2e.guest_network 175  e2e.maintenance 160
  e2e.life_cycle 150  e2e.remote_access 150  e2e.wedge 150  e2e.handshake 135
  e2e.status_updates 130  e2e.time_settings 130  e2e.startup 120
  e2e.framing 115  e2e.events 105  e2e.shell_safety 75
  e2e.dispatch 65  e2e.queueing 50  e2e.tls 40  e2e.backoff 30  e2e.host_safety 11
  e2e.target 6
  e2e.startup_settings 130  e2e.output_caps 80  e2e.network_settings_corners 60
  e2e.remote_access_gateways 60  e2e.console 45
  package.init_script 195  interop.python 190  interop.ws 180
  interop.lws 155  device.utility_script 78  device.reboot_and_logs 43
  device.tools 40  device.uci 33  device.network 20  device.sandbox 15
  server.cli 13  package.package_files 13
  fleet.fleet_run 150  # plain build only: 20 agents and a server restart, beside the rest
  server.fleet_state 5  fleet.fleet_units 5  device.fleet_resources 20)

# Sets the COST of test `name` (created in the calling directory) from the
# table; tests not in it keep the default.
function(kc_suite_cost name)
  list(FIND kc_suite_costs ${name} at)
  if(at GREATER -1)
    math(EXPR at "${at} + 1")
    list(GET kc_suite_costs ${at} cost)
    set_tests_properties(${name} PROPERTIES COST ${cost})
  endif()
endfunction()
