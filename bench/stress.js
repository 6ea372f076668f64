// An application behind the web server that is tried, and clients that browse it through nat-peer. One process, so that it
// is known from moment to moment whether the application has anything to do.
// Usage: node stress.js files FOLDER   writes what the web server gives by itself
//        node stress.js SERVER FOLDER SEQUENCES SEED SLOW PORT ...
// SLOW: ms that the application takes at most to answer HEAD. Each PORT is a nat-peer's.
'use strict';
const crypto = require('crypto');
const express = require('express');
const fs = require('fs');
const http = require('http');
const net = require('net');

const [server, folder, sequences, seed, slow, ...ports] = process.argv.slice(2);
const lines = (count, line) => Array.from({ length: count }, (_, at) => line(at));
const files = { small: 20, middle: 6000, large: 40000 };
for (const name in files)
    files[name] = lines(files[name], at => `${name} ${at}\n`).join('');

let drawn = 0;
function random(below) {
    return crypto.createHash('sha256').update(`${seed} ${drawn++}`).digest().readUInt32BE() % below;
}
const sleep = milliseconds => new Promise(resolve => setTimeout(resolve, milliseconds));

// -- The application. A path is /app/KIND/COUNT-SPACING-NUMBER: so many parts, so many ms apart.

function split(path) {
    const [, kind, count, spacing, number] = path.match(/\/app\/([a-z]+)\/(\d+)-(\d+)-(\d+)$/) || [];
    const line = {
        ticks: () => 'tick\n', // all the same
        events: at => `data: ${at}\n\n`,
    }[kind] || (at => `${kind} ${number} part ${at} ${'.'.repeat(400)}\n`);
    return kind && { kind, spacing: Number(spacing), parts: lines(Number(count), line) };
}

const changes = [{ time: 0, atWork: 0 }]; // of how many requests it has
function change(by) {
    changes.push({ time: Date.now(), atWork: changes[changes.length - 1].atWork + by });
}

async function answer(request, response) {
    change(1);
    response.on('close', () => change(-1));
    const page = split(request.path);
    if (request.method === 'HEAD')
        await sleep(Math.random() * Number(slow));
    if (!page)
        return response.status(404).send('no such page');
    const { kind, spacing, parts } = page;
    response.type(kind === 'events' ? 'text/event-stream' : 'text/plain');
    if (kind === 'late')
        await sleep(spacing);
    if (kind === 'short' || kind === 'late')
        return response.send(parts.join(''));
    for (const part of parts) {
        if (response.destroyed)
            return;
        response.write(part);
        if (spacing > 0)
            await sleep(spacing);
    }
    if (kind !== 'broken')
        return response.end();
    await sleep(30); // until what was written has left
    response.destroy();
}

// For how many ms of that time it had nothing to do, and for how many before its end it has had nothing more to do.
function idle(from, to) {
    let sum = 0, freeSince = 0;
    changes.forEach(({ time, atWork }, at) => {
        const end = at + 1 < changes.length ? changes[at + 1].time : to;
        if (atWork === 0)
            sum += Math.max(0, Math.min(end, to) - Math.max(time, from));
        else if (end - time > 20) // the wanted page takes less, and what nat-peer asks for its own sake
            freeSince = Math.min(end, to);
    });
    return { sum, free: to - freeSince };
}

// -- The clients.

let wrong = 0;
// Asks for a path and gives it up after so many ms, or never: the status and whether it came whole, was cut or left.
function ask(port, path, giveUpAfter) {
    const page = split(path);
    const expected = page ? page.parts.join('') : files[path.slice(1, -'.txt'.length)];
    return new Promise(resolve => {
        let status = 0, isLeft = false, body = '';
        const end = how => {
            clearTimeout(timer);
            const isPage = status === 200 && (how === 'whole' ? body === expected : expected.startsWith(body));
            const isRight = isPage || status === 0 || status >= 500; // all else is another's
            wrong += !isRight;
            if (!isRight)
                console.error(`stress: wrong: ${path} ${status} ${how}: ${body.length} bytes: ${JSON.stringify(body.slice(0, 200))}`);
            resolve(`${status} ${how}`);
        };
        const request = http.get({ port, host: '127.0.0.1', path, agent: false }, response => {
            status = response.statusCode;
            response.setEncoding('latin1');
            response.on('data', text => { body += text; });
            response.on('error', () => {}); // is followed by close
            response.on('close', () => end(response.complete ? 'whole' : isLeft ? 'left' : 'cut'));
        });
        request.on('error', error => status === 0 && end(isLeft ? 'left' : `none (${error.code})`));
        const leave = () => { isLeft = true; request.destroy(); };
        const timer = giveUpAfter === undefined ? undefined : setTimeout(leave, giveUpAfter);
    });
}

const application = server === 'busybox' ? '/cgi-bin/app' : '/app';
function randomPath() {
    const kinds = ['short', 'late', 'small', 'middle', 'large']; // and what comes in chunks
    if (server !== 'busybox')
        kinds.push('chunks', 'slow', 'ticks', 'events', 'broken', 'breaking');
    const kind = kinds[random(kinds.length)];
    const spacing = 50 + random(550);
    const parts = {
        short: '2-0', late: `2-${200 + random(2800)}`, chunks: `${10 + random(2000)}-0`, broken: `${1 + random(500)}-0`,
        breaking: `${2 + random(8)}-${spacing}`,
    }[kind] || `${2 + random(10)}-${spacing}`;
    return kind in files ? `/${kind}.txt` : `${application}/${kind.replace('breaking', 'broken')}/${parts}-${random(1e9)}`;
}

async function browse() {
    const times = [];
    let pages = 0, unmet = 0, failed = 0, late = 0;
    for (let sequence = 0; sequence < Number(sequences); sequence++) {
        const story = ports.map(() => '');
        await Promise.all(ports.map(async (port, peer) => {
            for (let count = 1 + random(3); count > 0; count--, pages++) {
                const path = randomPath();
                const isWanted = random(path.includes('/broken/') ? 20 : 2) === 0; // who waits for a broken one waits long
                const giveUpAfter = isWanted ? undefined : random([100, 1000, 4000][random(3)]);
                const begin = Date.now();
                const result = await ask(port, path, giveUpAfter);
                const isUnmet = isWanted && result !== '200 whole' && !/broken|ticks|events/.test(path);
                unmet += isUnmet;
                story[peer] += `  ${peer + 1} ${path} ${isUnmet ? 'UNMET, ' : ''}${isWanted ? 'wanted' : `given up after ${giveUpAfter}`}: ${result}, ${Date.now() - begin} ms\n`;
            }
        }));
        await Promise.all(ports.map(async (port, peer) => {
            const begin = Date.now();
            const result = await ask(port, `${application}/short/2-0-${random(1e9)}`);
            const end = Date.now();
            const { sum, free } = idle(begin, end);
            const isLate = sum > 1000 && free > 2000;
            times.push(sum);
            failed += result !== '200 whole';
            late += isLate;
            story[peer] += `  ${peer + 1} next: ${result}, ${end - begin} ms, in ${sum} of which the application had nothing to do, free for ${free}${isLate ? ', LATE' : ''}\n`;
            if (result !== '200 whole')
                console.error(`stress: ${server}, peers: ${ports.length}, sequence ${sequence}: the next page: ${result}`);
        }));
        process.stdout.write(`${new Date().toISOString()} sequence ${sequence}\n${story.join('')}`);
    }
    times.sort((one, other) => one - other);
    console.error(`${server}, peers: ${ports.length}: ${sequences} sequences, ${pages} pages, ${wrong} wrong, ${unmet} unmet; next page: ` +
        `${failed} of ${times.length} failed, ${late} late, median ${times[times.length >> 1]} ms, worst ${times[times.length - 1]} ms`);
    process.exit(wrong + unmet + failed > 0 ? 1 : 0);
}

function awaitPort(port, tries = 100) {
    return new Promise((resolve, reject) => {
        const probe = net.connect(port, '127.0.0.1', () => resolve(probe.destroy()));
        probe.on('error', () => tries === 0 ? reject(new Error(`nothing listens on port ${port}`))
                                            : setTimeout(() => awaitPort(port, tries - 1).then(resolve, reject), 100));
    });
}

if (server === 'files') {
    for (const name in files) {
        fs.writeFileSync(`${folder}/${name}.txt`, files[name]);
        fs.utimesSync(`${folder}/${name}.txt`, 1e9, 1e9); // old enough to be asked for in ranges
    }
} else {
    express().use(express.static(folder), answer).listen(server === 'express' ? 80 : 3000, '127.0.0.1');
    Promise.all([80, ...ports].map(port => awaitPort(port))).then(browse).catch(error => {
        console.error(`stress: ${error.message}`);
        process.exit(1);
    });
}
