# Entry points: `make test` (install what is missing, configure, build, run
# the test suite), `make demo` (render a stereo sequence, track it, write the
# poses, overlays and a summary to out/), `make bench`, `make asan` (tests
# under Address and UndefinedBehavior sanitizers), `make fuzz` (the fuzz
# harnesses, FUZZ_SECONDS each), `make docs` (API reference). Build trees
# live in build/, build-asan/ and build-fuzz/.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=

.PHONY: all deps configure build test demo bench asan fuzz docs clean

all: build

deps:
	@./scripts/install-deps.sh || echo "warning: could not install every dependency; the configure step says what is missing"

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The demo: the bundled chamfered box seen by the stereo pair of data/ (lens
# distortion, cluttered table, noise), 150 frames with object and tool
# moving, tracked from a start pose 3 mm and 2 degrees off the true one (as
# a real initial pose would be), so that the first frames show it converge.
# The sequence is rendered once into out/sequence/ and again only
# when the renderer or data/ change. zot_track prints every frame's error
# against the truth and its time, writes poses.csv, overlays/ and
# overlay.avi to out/, and fails (so does make) when a frame is lost or the
# mean error exceeds 1 % of the object's size or 0.5 degrees.
DEMO_OUT ?= out
DEMO_SEQ := $(DEMO_OUT)/sequence
DEMO_DATA := data/camera_stereo.txt data/tracker_demo.txt data/model_chamfered_box.txt \
	data/chamfered_box_polyhedron.txt data/top_slot_polyline.txt

demo: build
	@$(MAKE) --no-print-directory $(DEMO_SEQ)/sequence.txt
	$(BUILD)/zot_track --config $(DEMO_SEQ) \
	  --images $(DEMO_SEQ)/cam0/%06d.png --images $(DEMO_SEQ)/cam1/%06d.png \
	  --times $(DEMO_SEQ)/times.txt --tool-poses $(DEMO_SEQ)/tool_poses.txt \
	  --initial-pose $(DEMO_SEQ)/initial_pose.txt --truth $(DEMO_SEQ)/truth_poses.txt \
	  --out $(DEMO_OUT) --overlays --overlay-video $(DEMO_OUT)/overlay.avi \
	  --per-frame --max-mean-error 1% 0.5

$(DEMO_SEQ)/sequence.txt: $(BUILD)/zot_render $(DEMO_DATA) Makefile
	rm -rf $(DEMO_SEQ)
	$(BUILD)/zot_render --config data --camera camera_stereo.txt --tracker tracker_demo.txt \
	  --model model_chamfered_box.txt --frames 150 --initial-offset 3 2 $(DEMO_SEQ)

# Tracking quality on hard rendered scenes (printed faces, a textured table,
# a moving occluder, changing light, fast motion, a camera stall, a wrong
# model): scripts/eval.sh renders them once into $(EVAL_OUT)/scenes/ (again
# when zot_render, data/ or the script change), tracks each with every
# tracker file of TRACKER (blank-separated, PATH or NAME=PATH; default the
# demo's and the designed one) and prints a row per scene and setting; the
# table goes to $(EVAL_OUT)/eval.csv, a plot per scene to $(EVAL_OUT)/plots/.
EVAL_OUT ?= out/eval
TRACKER ?=
.PHONY: eval
eval: configure
	cmake --build $(BUILD) -j $(JOBS) --target zot_render zot_track zot_eval
	BUILD=$(BUILD) EVAL_OUT=$(EVAL_OUT) JOBS=$(JOBS) TRACKER="$(TRACKER)" ./scripts/eval.sh

# Each benchmark BENCH_REPS times, the repetitions of all rows shuffled
# together, and the median reported: on a shared machine the rows of one run
# then see the same load, so their ratios hold.
BENCH_REPS ?= 5
bench: build
	@for b in $(BUILD)/bench_*; do [ -x "$$b" ] && { echo "== $$b"; "$$b" \
	  --benchmark_repetitions=$(BENCH_REPS) --benchmark_enable_random_interleaving=true \
	  --benchmark_report_aggregates_only=true; }; done

asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOT_SANITIZE=ON -DZOT_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -j $(JOBS)

# Each harness of tests/fuzz/ under libFuzzer with Address and UndefinedBehavior
# sanitizers for FUZZ_SECONDS, one at a time (clang needed); prints the
# executions and findings of each, and fails when there is a finding.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
fuzz:
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DZOT_FUZZ=ON -DZOT_BUILD_TESTS=OFF -DZOT_BUILD_TOOLS=OFF -DZOT_BUILD_BENCH=OFF \
	  -DZOT_BUILD_PYTHON=OFF -DZOT_WITH_DISPLAY=OFF $(CMAKE_ARGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	tests/fuzz/run_fuzz.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

# API reference (Doxygen, warning-free: any warning fails the target).
docs:
	@command -v doxygen >/dev/null || ./scripts/install-deps.sh doxygen
	mkdir -p $(BUILD)/docs
	ZOT_DOCS_OUT=$(BUILD)/docs doxygen docs/Doxyfile
	@echo "API reference: $(BUILD)/docs/html/index.html"

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
