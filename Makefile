# Convenience entry points; each one sets the machine up first (as root).
.PHONY: all demo test bench clean
all:
	scripts/setup.sh build && cmake -S . -B build -G Ninja && ninja -C build
demo:
	scripts/demo.sh
test:
	scripts/test.sh
bench:
	scripts/bench.sh
clean:
	rm -rf build build-*
