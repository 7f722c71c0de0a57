// Colour and shape of a channel picture: saturation, contrast, brightness and
// opacity; rounded corners; the soft rim of a rotated picture; and the clip
// branch that cuts out an inset rectangle with rounded corners.
varying vec2 textureCoordinate;

uniform sampler2D inputImageTexture;
uniform float brightness;
uniform float contrast;
uniform float saturation;
uniform float alphaValue;
uniform float isRoundCamera;
uniform float xRadius;
uniform float yRadius;
uniform float xyRatio;
uniform float isClip;
uniform float isClipPerspect;
uniform float inXbias;
uniform float inYbias;
uniform float isRotate;
uniform float xRotation;
uniform float yRotation;
uniform float premulAlpha;

const vec3 luminanceWeighting = vec3(0.2125, 0.7154, 0.0721);

// Distance from the circle centre of the corner that the fragment lies in, y
// distances scaled by xyRatio; 0 outside the four corner boxes.
float getDistance(float xbias, float ybias)
{
    float x = textureCoordinate.x;
    float y = textureCoordinate.y;
    vec2 centre = vec2(xRadius, yRadius * xyRatio);
    if (x - xbias < xRadius && y - ybias < yRadius)
        return distance(vec2(x - xbias, (y - ybias) * xyRatio), centre);
    if (x + xbias > 1.0 - xRadius && y - ybias < yRadius)
        return distance(vec2(1.0 - x - xbias, (y - ybias) * xyRatio), centre);
    if (x - xbias < xRadius && y + ybias > 1.0 - yRadius)
        return distance(vec2(x - xbias, (1.0 - y - ybias) * xyRatio), centre);
    if (x + xbias > 1.0 - xRadius && y + ybias > 1.0 - yRadius)
        return distance(vec2(1.0 - x - xbias, (1.0 - y - ybias) * xyRatio), centre);
    return 0.0;
}

float getCornerAlpha()
{
    float cornerAlpha = 1.0;
    float dist = getDistance(inXbias, inYbias);
    if (dist != 0.0)
        cornerAlpha = smoothstep(xRadius + 0.001, xRadius - 0.001, dist);
    return cornerAlpha;
}

// Softens the rim of the picture while it is rotated.
float getEdgeAlpha()
{
    float x = textureCoordinate.x;
    float y = textureCoordinate.y;
    if (x > 0.004 && x < 0.996 && y > 0.004 && y < 0.996)
        return 1.0;
    vec2 centre = vec2(0.5, 0.5);
    float len = distance(textureCoordinate, centre);
    float edgeAlpha = 1.0;
    float maxL;
    if (y > 0.996) {
        maxL = distance(vec2(x, 0.998), centre);
        edgeAlpha = smoothstep(maxL + 0.002, maxL - 0.002, len);
    } else if (y < 0.004) {
        maxL = distance(vec2(x, 0.002), centre);
        edgeAlpha = smoothstep(maxL + 0.002, maxL - 0.002, len);
    }
    // In a corner band the x result overwrites the y result.
    if (x > 0.996) {
        maxL = distance(vec2(0.998, y), centre);
        edgeAlpha = smoothstep(maxL + 0.002, maxL - 0.002, len);
    } else if (x < 0.004) {
        maxL = distance(vec2(0.002, y), centre);
        edgeAlpha = smoothstep(maxL + 0.002, maxL - 0.002, len);
    }
    return edgeAlpha;
}

vec4 withAlpha(vec3 color, float alpha)
{
    if (premulAlpha == 1.0)
        return vec4(color * alpha, alpha);
    return vec4(color, alpha);
}

// Cuts out the rectangle between the biases, with rounded corners; no colour
// change and no opacity.
void doClip()
{
    vec4 oldColor = texture2D(inputImageTexture, textureCoordinate);
    float x = textureCoordinate.x;
    float y = textureCoordinate.y;
    float dstAlpha;
    if (inXbias > 0.0 || inYbias > 0.0) {
        dstAlpha = 1.0;
        float cornerAlpha = getCornerAlpha();
        if (x < inXbias || x > 1.0 - inXbias || y < inYbias || y > 1.0 - inYbias)
            dstAlpha = 0.0;
        else
            dstAlpha = min(oldColor.a, cornerAlpha);
    } else {
        dstAlpha = oldColor.a;
    }
    gl_FragColor = withAlpha(oldColor.rgb, dstAlpha);
}

void main()
{
    if (isClip == 1.0) {
        doClip();
        return;
    }
    vec4 oldColor = texture2D(inputImageTexture, textureCoordinate);

    // Saturation, contrast, brightness, in this order, unclamped.
    float luminance = dot(oldColor.rgb, luminanceWeighting);
    vec3 color = mix(vec3(luminance), oldColor.rgb, saturation);
    color = (color - 0.5) * contrast + 0.5;
    color = color + brightness;

    float cornerAlpha = getCornerAlpha();
    float dstAlpha = min(min(oldColor.a, cornerAlpha), alphaValue);
    if (isRotate != 0.0) {
        float edgeAlpha = getEdgeAlpha();
        if (isClipPerspect == 1.0) {
            dstAlpha = min(edgeAlpha, alphaValue);
            if (oldColor.a < 0.05)
                dstAlpha = oldColor.a;
        } else {
            dstAlpha = min(edgeAlpha, dstAlpha);
        }
    }
    gl_FragColor = withAlpha(color, dstAlpha);
}
