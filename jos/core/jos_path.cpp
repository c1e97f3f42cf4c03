// Root directory under which every fixed path of the daemon is resolved.
#include "jos.h"

static std::string _jos_root;

void jos_setroot(std::string_view root)
{
    _jos_root.assign(root);
    while (_jos_root.size() > 1 && _jos_root.back() == '/')
        _jos_root.pop_back();
    if (_jos_root == "/")
        _jos_root.clear();
}

bool jos_hasroot()
{
    return !_jos_root.empty();
}

std::string jos_path(std::string_view abs)
{
    std::string p = _jos_root;
    p.append(abs);
    return p;
}
