// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string_view>

// Whether a request that names this host was meant for us. A page of somebody else's can have the browser resolve its
// own name to our address, and would then be taken for our own page. So no name is ours but "localhost" and that of this
// host, alone or in ".local". An address in numbers is nobody's name. Any port will do.
bool IsOurHost(std::string_view host, std::string_view own_name);
