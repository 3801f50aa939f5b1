// A device for the tests: the real daemon and tavix-settings-web in front of it, in a folder of their own.
import { spawn } from 'node:child_process';
import { mkdtemp, rm, writeFile } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

export const kPatience = 60000; // ms; a machine that is busy with a build may stand still for seconds

const kSources = process.env.TAVIX_SOURCES;
const kDaemon = process.env.TAVIX_SETTINGS_SERVER_PROGRAM;
const kWeb = process.env.TAVIX_SETTINGS_WEB_PROGRAM;

export const exampleDefaults = join(kSources, 'examples/device/defaults.d');
export const exampleRestricted = join(kSources, 'examples/device/restricted.d');

// Nothing is left behind when the tests are ended.
const children = new Set();
export const endAll = () => children.forEach((child) => child.kill('SIGKILL'));
process.on('exit', endAll);
for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.on(signal, () => process.exit(1));

// A program that prints the address that it listens on.
class Program {
  static async start(path, args, directory) {
    const program = new Program();
    program.child = spawn(path, args, { cwd: directory, stdio: ['ignore', 'pipe', 'pipe'] });
    program.output = '';
    program.ended = new Promise((resolve) => program.child.once('exit', resolve));
    children.add(program.child);
    program.ended.then(() => children.delete(program.child));
    program.address = await new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error(`${path} does not listen: ${program.output}`)), kPatience);
      const read = (data) => {
        program.output += data;
        const found = /listening on (\S+)\n/.exec(program.output);
        if (found) resolve(found[1]);
        if (found) clearTimeout(timer);
      };
      program.child.stdout.on('data', read);
      program.child.stderr.on('data', read);
      program.child.once('exit', () => {
        clearTimeout(timer);
        reject(new Error(`${path} ended: ${program.output}`));
      });
    });
    return program;
  }

  async stop(signal = 'SIGTERM') {
    this.child.kill(signal);
    await this.ended;
  }
}

export class Device {
  #programs = [];

  // options: defaults and restricted, texts or folders; history: whether one is kept; web: arguments of the program.
  static async start({ defaults = exampleDefaults, restricted = exampleRestricted, history = true, web = [] } = {}) {
    const device = new Device();
    device.directory = await mkdtemp(join(tmpdir(), 'tavix-page-'));
    const args = ['--listen', '127.0.0.1:0', '--user-settings', 'user.ini',
      '--defaults', await device.place('defaults.ini', defaults), '--restricted', await device.place('restricted.ini', restricted)];
    if (history) args.push('--history', '1048576');
    device.daemonArguments = args;
    device.daemon = await device.#start(kDaemon, args);
    device.webArguments = web;
    device.web = await device.startWeb();
    return device;
  }

  // A path of its own is the folder itself, anything else a text for a file.
  async place(name, text) {
    return text.startsWith('/') ? text : this.write(name, text);
  }

  async write(name, text, mode = 0o600) {
    const path = join(this.directory, name);
    await writeFile(path, text, { mode });
    return path;
  }

  async #start(path, args) {
    const program = await Program.start(path, args, this.directory);
    this.#programs.push(program);
    return program;
  }

  // One more in front of the same daemon; address: where, or a port that the kernel picks.
  startWeb(address = '127.0.0.1:0') {
    return this.#start(kWeb, ['--listen', address, '--server', this.daemon.address, '--timeout', String(kPatience / 1000), ...this.webArguments]);
  }

  // Once more, at the address that it had.
  async startDaemonAgain() {
    const args = [...this.daemonArguments];
    args[1] = this.daemon.address;
    this.daemon = await this.#start(kDaemon, args);
  }

  get url() {
    return `http://${this.web.address}/`;
  }

  async ask(method, path, body, headers = {}) {
    const response = await fetch(new URL(`api/v1/${path}`, this.url), {
      method,
      headers: { ...(body === undefined ? {} : { 'Content-Type': typeof body === 'string' ? 'text/plain' : 'application/json' }), ...headers },
      body: body === undefined || typeof body === 'string' ? body : JSON.stringify(body),
      signal: AbortSignal.timeout(kPatience),
    });
    const text = await response.text();
    if (!response.ok) throw new Error(`${method} ${path}: ${response.status} ${text}`);
    return text === '' ? null : JSON.parse(text);
  }

  // What somebody else writes. A value of null takes the key away.
  set(group, keys) {
    return this.ask('PATCH', `group?${new URLSearchParams({ name: group })}`, keys);
  }

  async remove(group) {
    const name = new URLSearchParams({ name: group });
    const { version } = await this.ask('GET', `group?${name}`);
    return this.ask('DELETE', `group?${name}`, undefined, { 'If-Match': `"${version}"` });
  }

  async value(group, key) {
    return (await this.ask('GET', `group?${new URLSearchParams({ name: group })}`)).keys[key]?.value;
  }

  async stop() {
    for (const program of this.#programs.reverse()) {
      if (program.child.exitCode === null && program.child.signalCode === null) await program.stop();
    }
    await rm(this.directory, { recursive: true, force: true });
  }
}
