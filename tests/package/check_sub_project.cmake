# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

# A sub-project brings its library: not its tests and examples, and no warnings for those who link it.
get_target_property(options Varnix::varnix INTERFACE_COMPILE_OPTIONS)
if(options OR TARGET unit_tables OR TARGET varnix_unit_support OR TARGET system_host OR TARGET share_a_table)
  message(FATAL_ERROR "options: ${options}; or tests or examples")
endif()
