"""python -m quillon.archive IN_DIR OUT_DIR [--scheduler ADDRESS] [--codec CODE] [--rate HZ] [--force]"""

import argparse
import sys

from . import convert


def main(argv=None):
    parser = argparse.ArgumentParser(
        prog="python -m quillon.archive",
        description="Convert every file of a folder tree to WAVE on a Dask cluster, "
                    "by the rules of 'quillon batch'.")
    parser.add_argument("in_dir")
    parser.add_argument("out_dir")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="Dask scheduler to use (tcp://host:8786); default: a local cluster")
    parser.add_argument("--codec", default="auto", help="codec of raw streams, or 'auto' (default)")
    parser.add_argument("--rate", type=int, help="output rate in Hz")
    parser.add_argument("--force", action="store_true", help="convert again what exists")
    args = parser.parse_args(argv)
    try:
        summary = convert(args.in_dir, args.out_dir, client=args.scheduler, codec=args.codec, rate=args.rate,
                          force=args.force)
    except ValueError as e:
        parser.error(str(e))
    except Exception as e:  # quillon.Error, OSError, cluster failures
        print("quillon: %s" % e, file=sys.stderr)
        return 1
    for f in summary.failed:
        print("failed: %s: %s" % (f.input, f.reason), file=sys.stderr)
    print(summary)
    print("summary: %s" % summary.summary_path)
    return 1 if summary.failed else 0


if __name__ == "__main__":
    sys.exit(main())
