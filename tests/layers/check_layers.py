#!/usr/bin/env python3
"""Checks the include rules of docs/architecture.md: every quoted #include
of the library, its public headers, the tool and the Python module must
point at a layer the including folder may use. Prints each breach and
exits 1 if there is one."""
import os
import re
import sys

root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), '..', '..'))
include = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def layer_of(target):
    """The layer an include path (src-rooted, or quillon/... public) names."""
    first = target.split('/')[0]
    if first == 'quillon':
        return 'public'
    if first == 'engines':
        return 'engines/' + target.split('/')[1]
    return first


# What each folder may include, by layer name ('engine' means its own
# engine folder only).
RULES = {
    'primitives': {'primitives'},
    'engines': {'primitives', 'engine'},
    'codeclib': {'primitives', 'engines', 'codeclib', 'codec', 'public'},
    'public': {'public'},
    'tools': {'public', 'local'},
    'python': {'public', 'local', 'tools'},
}


def allowed(folder_layer, own_engine, target_layer):
    rule = RULES.get(folder_layer)
    if rule is None:
        return target_layer != 'tools'  # the rest of the library: anything but the tool
    if target_layer.startswith('engines/'):
        return 'engines' in rule or ('engine' in rule and target_layer == own_engine)
    return target_layer in rule


def check():
    breaches = []
    for base, kind in (('src', None), ('include/quillon', 'public'), ('tools', 'tools'), ('python', 'python')):
        for folder, _, files in os.walk(os.path.join(root, base)):
            for name in files:
                if not name.endswith(('.h', '.cpp', '.c')):
                    continue
                path = os.path.join(folder, name)
                rel = os.path.relpath(path, root)
                parts = rel.split(os.sep)
                if kind:
                    folder_layer, own = kind, None
                else:
                    folder_layer = parts[1] if len(parts) > 2 else 'src'
                    own = 'engines/' + parts[2] if folder_layer == 'engines' else None
                with open(path, encoding='utf-8') as f:
                    text = f.read()
                for target in include.findall(text):
                    if kind in ('tools', 'python') and os.path.exists(os.path.join(root, 'tools', target)) and '/' not in target:
                        target_layer = 'tools' if kind == 'python' else 'local'
                    elif kind == 'python' and os.path.exists(os.path.join(folder, target)):
                        target_layer = 'local'
                    elif kind == 'public' and not target.startswith('quillon/'):
                        target_layer = 'private'
                    else:
                        target_layer = layer_of(target)
                    if not allowed(folder_layer, own, target_layer):
                        breaches.append('%s: includes "%s" (%s may not use %s)' % (rel, target, folder_layer, target_layer))
    return breaches


if __name__ == '__main__':
    found = check()
    for line in found:
        print(line)
    print('%d include rule breach(es)' % len(found))
    sys.exit(1 if found else 0)
