// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string_view>

// Whether a request to that host was meant for us. Somebody else's page can let its own name stand for our address, and
// would then be taken for our page. So no name is ours but "localhost" and that of this device, alone or with ".local".
// An address in numbers is nobody's name. Any port will do.
bool IsOurHost(std::string_view host, std::string_view own_name);
